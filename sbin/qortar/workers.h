/// How many threads work, and those of the reading half.
#pragma once

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "sbin/qortar/options.h"

namespace qortar {

inline unsigned Jobs(const Options& options) {
    return options.jobs ? options.jobs : std::max(1U, std::thread::hardware_concurrency());
}

/// One worker for each job; the first error that ends the run comes out when all have stopped.
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
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < jobs; ++i) threads.emplace_back(guarded);
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace qortar
