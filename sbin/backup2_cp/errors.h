/// Failures, and trying again.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace backup2_cp {

/// Trying again would not help.
struct Permanent : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The storage answered that it has no room.
struct NoRoom : Permanent {
    using Permanent::Permanent;
};

/// One line for people: the reason, with the object it concerns.
std::string Reason(const std::exception& e);

}  // namespace backup2_cp
