#include "vel/vel_err.h"

#include <cstring>
#include <utility>

namespace vel_err {

Error::Error(std::string type) : type_(std::move(type)), what_("Type: '" + type_ + "'") {}

Error::Error(std::string type, std::string object) : Error(std::move(type)) {
    object_ = std::move(object);
    what_ += " Object: '" + object_ + "'";
}

Error::Error(std::string type, std::string object, std::string value)
    : Error(std::move(type), std::move(object)) {
    value_ = std::move(value);
    what_ += " Value: '" + value_ + "'";
}

AssertError::AssertError(std::string file, int line, std::string func, std::string message)
    : Error("assert", func + " (" + file + ":" + std::to_string(line) + ")", message),
      file_(std::move(file)),
      func_(std::move(func)),
      message_(std::move(message)),
      line_(line) {}

void AssertError::Raise(const char* file, int line, const char* func, const std::string& message) {
    throw AssertError(file, line, func, message);
}

void RaiseErrno(const std::string& op, const std::string& path, int err) {
    char text[256];
    throw Error("sys", op, path + ": " + ::strerror_r(err, text, sizeof text));
}

}  // namespace vel_err
