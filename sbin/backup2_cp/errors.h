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

/// A server refuses our key.
struct KeyRefused : Permanent {
    using Permanent::Permanent;
};

/// The storage refuses the login, whatever its kind: another call would fare no better, and servers
/// shut out who tries too often.
bool IsRefusedLogin(const std::exception& e);

/// One line for people: the reason, with the object it concerns.
std::string Reason(const std::exception& e);

}  // namespace backup2_cp
