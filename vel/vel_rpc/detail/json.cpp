#include "vel/vel_rpc/detail/json.h"

#include <limits>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"

namespace vel_rpc::detail {
namespace {

constexpr int kMaxDepth = 64;

[[noreturn]] void Bad(const std::string& where, const std::string& what) {
    throw vel_err::Error("storage", "refused", where + ": " + what);
}

nlohmann::json Parse(const std::string& where, const std::string& text) {
    const auto check_depth = [&where](int depth, auto, const auto&) {
        if (depth > kMaxDepth) Bad(where, "the answer is nested too deeply");
        return true;
    };
    try {
        return nlohmann::json::parse(text, check_depth);
    } catch (const nlohmann::json::exception&) {
        Bad(where, "the answer is not JSON");  // without its bytes: they may be anything
    }
}

const nlohmann::json* Find(const void* value, const std::string& name) {
    const auto& object = *static_cast<const nlohmann::json*>(value);
    if (!object.is_object()) return nullptr;
    const auto found = object.find(name);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

}  // namespace

struct Json::Document {
    std::string where;
    nlohmann::json root;
};

Json::Json(std::string where, const std::string& text) {
    nlohmann::json root = Parse(where, text);
    document_ = std::make_shared<const Document>(Document{std::move(where), std::move(root)});
    value_ = &document_->root;
}

Json::Json(std::shared_ptr<const Document> document, const void* value)
    : document_(std::move(document)), value_(value) {}

void Json::Complain(const std::string& name, const char* wanted) const {
    Bad(document_->where, "the answer has no " + std::string(wanted) + " \"" + name + "\"");
}

bool Json::Has(const std::string& name) const { return Find(value_, name) != nullptr; }

Json Json::At(const std::string& name) const {
    const auto* member = Find(value_, name);
    if (!member) Complain(name, "member");
    return {document_, member};
}

std::string Json::Text(const std::string& name) const {
    const auto* member = Find(value_, name);
    if (!member || !member->is_string()) Complain(name, "text");
    return member->get<std::string>();
}

std::string Json::TextOrNothing(const std::string& name) const {
    return Has(name) ? Text(name) : "";
}

uint64_t Json::Number(const std::string& name) const {
    const auto* member = Find(value_, name);
    if (member && member->is_number_unsigned()) return member->get<uint64_t>();
    const std::string digits = member && member->is_string() ? member->get<std::string>() : "";
    // 18 digits cannot overflow, and no file is that long.
    if (digits.empty() || digits.size() > std::numeric_limits<int64_t>::digits10 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        Complain(name, "number");
    }
    return static_cast<uint64_t>(str::Int64(digits));
}

bool Json::Flag(const std::string& name) const {
    const auto* member = Find(value_, name);
    if (!member || !member->is_boolean()) Complain(name, "flag");
    return member->get<bool>();
}

std::vector<Json> Json::Items(const std::string& name) const {
    const auto* member = Find(value_, name);
    if (!member || !member->is_array()) Complain(name, "list");
    std::vector<Json> items;
    items.reserve(member->size());
    for (const auto& item : *member) items.push_back(Json(document_, &item));
    return items;
}

bool IsUtf8(const std::string& text) {
    try {
        Quoted(text);
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

std::string Quoted(const std::string& text) {
    return nlohmann::json(text).dump(-1, ' ', /*ensure_ascii=*/true);
}

std::string Object(std::initializer_list<std::pair<std::string, std::string>> members) {
    std::string object;
    for (const auto& [name, value] : members) {
        str::Append(object, Quoted(name) + ":" + value, ",");
    }
    return "{" + object + "}";
}

}  // namespace vel_rpc::detail
