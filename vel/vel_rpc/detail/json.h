/// JSON for the providers of cloud storages, and from them.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vel_rpc::detail {

/// A value in an answer that came from outside. Asked for something that is not there, or of
/// another kind, every call throws vel_err::Error("storage", "refused", "<where>: what is wrong").
class Json {
public:
    /// Parses. `where` names the answer in errors: "Dropbox: list /a". At most 64 levels.
    Json(std::string where, const std::string& text);

    bool Has(const std::string& name) const;  ///< an object with this member, which is not null
    Json At(const std::string& name) const;
    std::string Text(const std::string& name) const;
    /// "" when the member is not there.
    std::string TextOrNothing(const std::string& name) const;
    /// Not negative; also a text of digits, as Google writes sizes.
    uint64_t Number(const std::string& name) const;
    bool Flag(const std::string& name) const;
    std::vector<Json> Items(const std::string& name) const;  ///< of an array

private:
    struct Document;
    Json(std::shared_ptr<const Document> document, const void* value);
    [[noreturn]] void Complain(const std::string& name, const char* wanted) const;

    std::shared_ptr<const Document> document_;
    const void* value_;  // within the document
};

bool IsUtf8(const std::string& text);
/// The text as a JSON string of ASCII only, so that it can also travel in a header. Must be UTF-8.
std::string Quoted(const std::string& text);
/// An object of members whose values are JSON already.
std::string Object(std::initializer_list<std::pair<std::string, std::string>> members);

}  // namespace vel_rpc::detail
