#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_xml.h"

namespace vel_rpc::detail {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kMaxExcerpt = 200;

void Add(std::string& words, const Json& object, const char* member) {
    const auto found = object.find(member);
    if (found != object.end() && found->is_string()) {
        str::Append(words, found->get<std::string>(), ": ");
    }
}

/// What the providers call their words: {"error": {"message", "errors": [{"reason"}]}},
/// {"error", "error_description"}, {"error_summary"}, {"error", "message" or "description"}.
std::string WordsOfJson(const Json& json) {
    std::string words;
    if (!json.is_object()) return words;
    for (const char* member : {"error", "error_summary", "error_description", "message"}) {
        Add(words, json, member);
    }
    const auto error = json.find("error");
    if (error == json.end() || !error->is_object()) return words;
    const auto list = error->find("errors");
    if (list != error->end() && list->is_array() && !list->empty() && list->front().is_object()) {
        Add(words, list->front(), "reason");
    }
    Add(words, *error, "message");
    return words;
}

/// Only the code and the message: other members tell what the request was signed with.
std::string WordsOfXml(const std::string& body) {
    try {
        const vel_xml::Xml xml = vel_xml::Xml::FromString(body);
        const std::string code = xml.GetNode("//*[local-name()='Code']").Str();
        const std::string message = xml.GetNode("//*[local-name()='Message']").Str();
        return message.empty() ? code : code + ": " + message;
    } catch (const vel_err::Error&) {
        return "";  // a page of some proxy: nothing that we may quote
    }
}

[[noreturn]] void BadCredential(const std::string& service) {
    throw vel_err::Error("storage", "bad_credential", service);
}

}  // namespace

std::string Excerpt(const std::string& body) {
    const Json json = Json::parse(body, nullptr, /*allow_exceptions=*/false);
    std::string words = json.is_discarded() ? WordsOfXml(body) : WordsOfJson(json);
    for (char& c : words) {
        if (str::badchars::Controls().find(c) != std::string::npos) c = ' ';
    }
    return words.substr(0, kMaxExcerpt);
}

std::map<std::string, std::string> ReadCredential(const std::string& service,
                                                  const std::string& credential) {
    const Json json = Json::parse(str::base64::Decode(credential), nullptr, false);
    if (!json.is_object()) BadCredential(service);
    std::map<std::string, std::string> members;
    for (auto member = json.begin(); member != json.end(); ++member) {
        if (!member->is_string()) BadCredential(service);
        members[member.key()] = member->get<std::string>();
    }
    return members;
}

}  // namespace vel_rpc::detail
