/// How many threads work, and how they are started.
#pragma once

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "sbin/qortar/options.h"

namespace qortar {

inline unsigned Jobs(const Options& options) {
    return options.jobs ? options.jobs : std::max(1U, std::thread::hardware_concurrency());
}

/// `most` threads that do `work`, or as many as the system gives: fewer are slower, and no failure.
template <class Work>
std::vector<std::thread> StartThreads(unsigned most, const Work& work) {
    std::vector<std::thread> threads;
    threads.reserve(most);
    try {
        while (threads.size() < most) threads.emplace_back(work);
    } catch (const std::system_error&) {
    }
    return threads;
}

/// One worker for each job, the calling thread among them; the first error that ends the run comes
/// out when all have stopped.
template <class Work>
void RunWorkers(unsigned jobs, std::atomic<bool>& stop, const Work& work) {
    std::mutex mutex;
    std::exception_ptr failure;
    const auto guarded = [&] {
        try {
            work();
        } catch (...) {
            stop = true;
            const std::lock_guard lock(mutex);
            if (!failure) failure = std::current_exception();
        }
    };
    std::vector<std::thread> threads = StartThreads(std::max(jobs, 1U) - 1, guarded);
    guarded();
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace qortar
