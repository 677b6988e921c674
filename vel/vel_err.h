/// Errors that carry a type, an object and a value, as every layer of the service throws them.
#pragma once

#include <exception>
#include <string>

namespace vel_err {

/// A failure of a healthy program. `what()` is one of
///   Type: 'T'
///   Type: 'T' Object: 'O'
///   Type: 'T' Object: 'O' Value: 'V'
/// by the number of arguments the error was made from.
class Error : public std::exception {
public:
    explicit Error(std::string type);
    Error(std::string type, std::string object);
    Error(std::string type, std::string object, std::string value);

    const std::string& type() const noexcept { return type_; }
    const std::string& object() const noexcept { return object_; }
    const std::string& value() const noexcept { return value_; }
    const char* what() const noexcept override { return what_.c_str(); }

private:
    std::string type_, object_, value_, what_;
};

/// A broken promise inside the program, or input that breaks the grammar of its own names.
/// `type()` is "assert"; `what()` contains the message and where it was raised.
class AssertError : public Error {
public:
    AssertError(std::string file, int line, std::string func, std::string message);
    [[noreturn]] static void Raise(const char* file, int line, const char* func,
                                   const std::string& message);

    const std::string& file() const noexcept { return file_; }
    int line() const noexcept { return line_; }
    const std::string& func() const noexcept { return func_; }
    const std::string& message() const noexcept { return message_; }

private:
    std::string file_, func_, message_;
    int line_;
};

/// Throws Error("sys", op, "<path>: <strerror(err)>").
[[noreturn]] void RaiseErrno(const std::string& op, const std::string& path, int err);

}  // namespace vel_err
