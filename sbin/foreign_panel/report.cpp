#include "sbin/foreign_panel/report.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr uint64_t kNamed = 1000;

const std::vector<std::pair<Fate, std::string>> kFates = {{Fate::Lost, "lost"},
                                                          {Fate::Changed, "changed"},
                                                          {Fate::NotNeeded, "not_needed"},
                                                          {Fate::Carried, "carried"}};

std::string Shown(const std::string& text) {
    return str::badchars::Escape(text, str::badchars::Controls(), '\\');
}

bool IsUtf8(const std::string& text) {
    try {
        (void)nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

}  // namespace

void Report::Add(Fate fate, const std::string& kind, const std::string& name,
                 const std::string& text) {
    Pile& pile = piles_[fate];
    if (pile.counts[kind]++ < kNamed) pile.lines.push_back({kind, name, text});
}

bool Report::AnythingLost() const { return piles_.count(Fate::Lost) > 0; }

void Report::Set(const std::string& key, const std::string& value) {
    const auto found = std::find_if(facts_.begin(), facts_.end(),
                                    [&](const auto& fact) { return fact.first == key; });
    if (found == facts_.end())
        facts_.emplace_back(key, value);
    else
        found->second = value;
}

std::string Report::Text() const {
    std::string out;
    for (const auto& [fate, word] : kFates) {
        const auto pile = piles_.find(fate);
        if (pile == piles_.end()) continue;
        for (const Line& line : pile->second.lines) {
            out += word + "\t" + line.kind + "\t" + Shown(line.name);
            out += (line.text.empty() ? "" : "\t" + Shown(line.text)) + "\n";
        }
        for (const auto& [kind, count] : pile->second.counts)
            if (count > kNamed)
                out += word + "\t" + kind + "\t(" + str::Str(count - kNamed) + " more)\n";
    }
    for (const auto& [key, value] : facts_) out += key + ": " + Shown(value) + "\n";
    out += "files: " + str::Str(files_) + ", folders: " + str::Str(folders_) +
           ", links: " + str::Str(links_) + ", bytes: " + str::Str(bytes_) + "\n";
    return out;
}

std::string Report::Json() const {
    nlohmann::ordered_json json;
    for (const auto& [key, value] : facts_) json[key] = value;
    json["status"] = AnythingLost() ? "lossy" : "complete";
    json["files"] = files_;
    json["folders"] = folders_;
    json["links"] = links_;
    json["bytes"] = bytes_;
    json["counts"] = nlohmann::ordered_json::object();
    for (const auto& [fate, word] : kFates) {
        json[word] = nlohmann::ordered_json::array();
        const auto pile = piles_.find(fate);
        if (pile == piles_.end()) continue;
        for (const Line& line : pile->second.lines) {
            nlohmann::ordered_json one = {{"kind", line.kind}, {"name", line.name}};
            if (!line.text.empty()) one["text"] = line.text;
            if (!IsUtf8(line.name)) one["name_hex"] = str::hex::Encode(line.name);
            json[word].push_back(std::move(one));
        }
        json["counts"][word] = pile->second.counts;
    }
    return json.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace foreign_panel
