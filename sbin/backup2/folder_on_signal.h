/// A working folder that does not outlive the program.
#pragma once

#include <signal.h>

#include <atomic>
#include <string>
#include <thread>

namespace backup2_admin {

/// While it lives, a signal that ends the program (INT, TERM, HUP) takes the folder with it. To be
/// made before other threads are.
class FolderOnSignal {
public:
    explicit FolderOnSignal(std::string path);
    FolderOnSignal(const FolderOnSignal&) = delete;
    FolderOnSignal& operator=(const FolderOnSignal&) = delete;
    ~FolderOnSignal();

private:
    void Watch();
    [[noreturn]] void Leave(int number);

    const std::string path_;
    sigset_t signals_{}, before_{};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace backup2_admin
