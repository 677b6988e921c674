/// The service's log: one line per event, levels 1-3 errors, 4 warnings, 5-6 notices, 7-9 traces.
///
/// Lines go to var/<log>.log below the working directory (the programs change to the install
/// root first), or to nowhere when that folder is missing. VEL_LOG_LEVEL is the highest level
/// that is written (default 5). Logging never throws and never stops the caller.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace vel_log {

/// One value of a format, kept by kind so that a mismatched conversion cannot misread memory.
struct Arg {
    enum class Kind { Signed, Unsigned, Real, Text } kind;
    int64_t i = 0;
    uint64_t u = 0;
    double d = 0;
    std::string_view s;

    template <class T>
    requires std::is_integral_v<T> || std::is_enum_v<T> Arg(T v)
        : kind(std::is_unsigned_v<T> ? Kind::Unsigned : Kind::Signed),
          i(static_cast<int64_t>(v)),
          u(static_cast<uint64_t>(v)) {
        if constexpr (std::is_signed_v<T>) u = static_cast<std::make_unsigned_t<T>>(v);
    }
    Arg(double v) : kind(Kind::Real), d(v) {}
    Arg(std::string_view v) : kind(Kind::Text), s(v) {}
    Arg(const std::string& v) : kind(Kind::Text), s(v) {}
    Arg(const char* v) : kind(Kind::Text), s(v ? v : "(null)") {}
};

/// printf conversions over typed values: %s prints anything, %d %i %u %x %X %o %c any integer of
/// any width (the width of the value decides, so %x of a negative short prints an unsigned short),
/// %f %g a real, %% a percent sign; flags, width and precision are understood. A text given to a
/// number conversion prints 0, a missing value prints nothing.
std::string Format(std::string_view format, std::initializer_list<Arg> args);

class Module {
public:
    /// `module` and `log` must outlive the object (literals).
    explicit Module(const char* module, const char* log = "qorvel") noexcept
        : module_(module), log_(log) {}

    template <class... A>
    void Write(int level, std::string_view format, const A&... args) const noexcept {
        WriteArgs(level, format, {Arg(args)...});
    }

private:
    void WriteArgs(int level, std::string_view format,
                   std::initializer_list<Arg> args) const noexcept;
    const char* module_;
    const char* log_;
};

using Sink = std::function<void(int level, std::string_view module, std::string_view text)>;
/// Replaces the file by `sink` (every level reaches it) and returns the sink before; an empty one
/// brings the file back. For tests.
Sink SetSink(Sink sink);
/// Besides the file or sink, `observer` gets every event, whether or not it is written; an empty
/// one ends that. Returns the observer before.
Sink SetObserver(Sink observer);

}  // namespace vel_log
