#include "sbin/foreign_panel/zone_file.h"

#include <cctype>
#include <map>

#include "vel/str.h"

#include "sbin/foreign_panel/values.h"

namespace foreign_panel {
namespace {

constexpr std::size_t kMostRecords = 100'000;

struct Words {
    bool begins_blank = false;  // the owner is the one of the record before
    std::vector<std::string> words;
};

/// Cuts the text into logical lines of words: quotes hold blanks together, parentheses lines.
class Scanner {
public:
    explicit Scanner(const std::string& text) : text_(text) {}

    bool Next(Words& line) {
        line = {};
        depth_ = 0;
        while (at_ < text_.size()) {
            line.begins_blank = text_[at_] == ' ' || text_[at_] == '\t';
            ReadLine(line.words);
            if (!line.words.empty()) return true;
        }
        return false;
    }

private:
    void ReadLine(std::vector<std::string>& words) {
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (c == '\n') {
                ++at_;
                if (depth_ == 0) return;
            } else if (c == ';') {
                at_ = std::min(text_.find('\n', at_), text_.size());
            } else if (c == '(' || c == ')') {
                depth_ += c == '(' ? 1 : (depth_ > 0 ? -1 : 0);
                ++at_;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                ++at_;
            } else {
                words.push_back(c == '"' ? Quoted() : Bare());
            }
        }
    }
    std::string Bare() {
        const std::size_t begin = at_;
        while (at_ < text_.size() &&
               std::string_view(" \t\r\n;()\"").find(text_[at_]) == std::string_view::npos)
            at_ += text_[at_] == '\\' && at_ + 1 < text_.size() ? 2 : 1;
        return text_.substr(begin, at_ - begin);
    }
    std::string Quoted() {
        const std::size_t begin = at_++;
        while (at_ < text_.size() && text_[at_] != '"')
            at_ += text_[at_] == '\\' && at_ + 1 < text_.size() ? 2 : 1;
        at_ = std::min(at_ + 1, text_.size());
        return text_.substr(begin, at_ - begin);
    }

    const std::string& text_;
    std::size_t at_ = 0;
    int depth_ = 0;
};

/// Seconds, also written as "1h30m"; "" for what is none.
std::string Seconds(const std::string& word) {
    static const std::map<char, uint64_t> kUnits = {
        {'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
    uint64_t sum = 0, number = 0;
    bool digits = false;
    for (const char c : str::Lower(word)) {
        const auto unit = kUnits.find(c);
        if (std::isdigit(static_cast<unsigned char>(c))) {
            number = number * 10 + static_cast<uint64_t>(c - '0');
            digits = true;
            if (number > UINT32_MAX) return "";
        } else if (digits && unit != kUnits.end()) {
            sum += number * unit->second;
            number = 0;
        } else {
            return "";
        }
    }
    return digits ? str::Str(sum + number) : "";
}

/// Which words of a record's data are names.
std::vector<std::size_t> NamesIn(const std::string& type) {
    static const std::map<std::string, std::vector<std::size_t>> kNames = {
        {"NS", {0}}, {"CNAME", {0}}, {"PTR", {0}},   {"DNAME", {0}},
        {"MX", {1}}, {"SRV", {3}},   {"SOA", {0, 1}}};
    const auto found = kNames.find(type);
    return found == kNames.end() ? std::vector<std::size_t>{} : found->second;
}

bool IsType(const std::string& word) {
    static const std::string kTypes =
        " A AAAA NS CNAME PTR DNAME MX SRV SOA TXT SPF CAA DS TLSA SSHFP NAPTR HINFO RP LOC ALIAS "
        "HTTPS SVCB AFSDB DNSKEY CERT ";
    return kTypes.find(" " + word + " ") != std::string::npos;
}

class ZoneReader {
public:
    ZoneReader(const std::string& zone, std::vector<std::string>& bad)
        : origin_(zone + "."), bad_(bad) {}

    void Take(const Words& line) {
        const std::string& first = line.words[0];
        if (first == "$ORIGIN" && line.words.size() > 1) {
            origin_ = AbsoluteName(line.words[1], origin_);
        } else if (first == "$TTL" && line.words.size() > 1) {
            ttl_ = Seconds(line.words[1]);
        } else if (first[0] == '$' || !Record(line)) {
            std::string text;
            for (const std::string& word : line.words) str::Append(text, word, " ");
            bad_.push_back(text.substr(0, 200));
        }
    }
    std::vector<DnsRecord> records;

private:
    bool Record(const Words& line) {
        std::size_t at = 0;
        if (!line.begins_blank) owner_ = str::Lower(AbsoluteName(line.words[at++], origin_));
        DnsRecord record{owner_, "", ttl_, ""};
        for (; at < line.words.size(); ++at) {
            const std::string word = line.words[at], upper = Upper(word);
            if (IsType(upper)) break;
            const std::string seconds = Seconds(word);
            if (!seconds.empty())
                record.ttl = seconds;
            else if (upper != "IN")
                return false;
        }
        if (at >= line.words.size() || owner_.empty() || Domain(owner_).empty()) return false;
        record.type = Upper(line.words[at++]);
        return Data({line.words.begin() + static_cast<std::ptrdiff_t>(at), line.words.end()},
                    record);
    }
    bool Data(std::vector<std::string> words, DnsRecord& record) {
        for (const std::size_t i : NamesIn(record.type)) {
            if (i >= words.size()) return false;
            words[i] = AbsoluteName(words[i], origin_);
        }
        for (const std::string& word : words) str::Append(record.data, word, " ");
        const bool fits = !record.data.empty() && IsUtf8(record.data) &&
                          record.data.find_first_of(str::badchars::Controls()) == std::string::npos;
        if (fits) records.push_back(record);
        return fits;
    }
    static std::string Upper(std::string word) {
        for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return word;
    }

    std::string origin_, owner_, ttl_;
    std::vector<std::string>& bad_;
};

}  // namespace

std::string AbsoluteName(const std::string& name, const std::string& origin) {
    if (name == "@") return origin;
    if (!name.empty() && name.back() == '.') return name;
    return origin == "." ? name + "." : name + "." + origin;
}

std::vector<DnsRecord> ReadZone(const std::string& text, const std::string& zone,
                                std::vector<std::string>& bad) {
    Scanner scanner(text);
    ZoneReader reader(zone, bad);
    for (Words line; scanner.Next(line);) {
        if (reader.records.size() + bad.size() >= kMostRecords) {
            bad.push_back("everything behind the first " +
                          str::Str(static_cast<uint64_t>(kMostRecords)));
            break;
        }
        reader.Take(line);
    }
    return reader.records;
}

}  // namespace foreign_panel
