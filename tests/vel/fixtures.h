/// What several suites of the platform need.
#pragma once

#include <string>

#include "vel/vel_err.h"

/// The platform error that the call threw as "type|object|value", "none" for nothing.
template <class Call>
std::string Failure(const Call& call) {
    try {
        call();
    } catch (const vel_err::Error& e) {
        return e.type() + "|" + e.object() + "|" + e.value();
    }
    return "none";
}
