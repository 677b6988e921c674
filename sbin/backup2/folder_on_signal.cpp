#include "sbin/backup2/folder_on_signal.h"

#include <unistd.h>

#include <ctime>
#include <exception>
#include <utility>

#include "vel/vel_file.h"

namespace backup2_admin {

FolderOnSignal::FolderOnSignal(std::string path) : path_(std::move(path)) {
    sigemptyset(&signals_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals_, number);
    ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    thread_ = std::thread([this] { Watch(); });
}

FolderOnSignal::~FolderOnSignal() {
    stop_ = true;
    thread_.join();
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void FolderOnSignal::Watch() {
    const timespec pause{0, 100'000'000};
    while (!stop_) {
        const int number = ::sigtimedwait(&signals_, nullptr, &pause);
        if (number > 0) Leave(number);
    }
}

void FolderOnSignal::Leave(int number) {
    try {
        vel_file::Remove(path_);
    } catch (const std::exception&) {
        // what could not be removed goes with the next run
    }
    ::_exit(128 + number);
}

}  // namespace backup2_admin
