#include "sbin/foreign_panel/budget.h"

#include <signal.h>

#include <stdexcept>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr uint64_t kFreeGrowth = 1ULL << 30;  // a small archive may well hold zeros

volatile sig_atomic_t signalled = 0;

void CheckSignal() {
    if (signalled) throw std::runtime_error("ended by a signal");
}

}  // namespace

void Budget::CountEntry() {
    CheckSignal();
    if (++entries_ > limits_.entries)
        throw std::runtime_error("the archive holds more than " + str::Str(limits_.entries) +
                                 " entries (--max-entries)");
}

void Budget::CheckSize(uint64_t size) const {
    if (size > limits_.bytes || bytes_ > limits_.bytes - size)
        throw std::runtime_error("the archive unpacks to more than the " + str::Str(limits_.bytes) +
                                 " bytes that there is room for (--max-size)");
}

void Budget::CountBytes(uint64_t bytes) {
    CheckSignal();
    CheckSize(bytes);
    bytes_ += bytes;
}

void Budget::CheckGrowth(uint64_t packed, uint64_t unpacked) const {
    CheckSignal();
    if (unpacked <= kFreeGrowth || unpacked / limits_.ratio <= packed) return;
    throw std::runtime_error("the archive unpacks to more than " + str::Str(limits_.ratio) +
                             " times its size (--max-ratio)");
}

void CatchSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { signalled = 1; };
    for (const int number : {SIGINT, SIGTERM}) ::sigaction(number, &action, nullptr);
}

}  // namespace foreign_panel
