#include "sbin/foreign_panel/sql_dump.h"

#include <cctype>
#include <stdexcept>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr std::size_t kLongestDefinition = 64 << 10;
constexpr std::size_t kTail = 256;
constexpr char kEndMark[] = "\n-- Dump completed";
constexpr char kVersionMark[] = "-- Server version";
constexpr char kNewFamily[] = "_0900_";

/// Lines of which the beginning says that they define something.
bool IsDefinition(std::string_view line) {
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string_view::npos) return false;
    if (std::string_view(")`/").find(line[first]) != std::string_view::npos) return true;
    for (const std::string_view word : {"CREATE ", "ALTER ", "SET ", "  DEFAULT", "-- Server"})
        if (line.substr(0, word.size()) == word) return true;
    return false;
}

bool IsWord(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

std::string Replacement(const std::string& collation) {
    const bool exact = str::EndsWith(collation, "_as_cs") || str::EndsWith(collation, "_bin");
    return exact ? "utf8mb4_bin" : "utf8mb4_unicode_520_ci";
}

uint64_t ReplaceCollations(std::string& line) {
    uint64_t count = 0;
    for (std::size_t at = line.find(kNewFamily); at != std::string::npos;
         at = line.find(kNewFamily, at)) {
        std::size_t begin = at, end = at;
        while (begin > 0 && IsWord(line[begin - 1])) --begin;
        while (end < line.size() && IsWord(line[end])) ++end;
        const std::string collation = line.substr(begin, end - begin);
        at = end;
        if (!str::StartsWith(collation, "utf8mb4_")) continue;
        const std::string better = Replacement(collation);
        line.replace(begin, end - begin, better);
        at = begin + better.size();
        ++count;
    }
    return count;
}

}  // namespace

OutTree::Content SqlDump::Content() {
    return [this](std::string_view& bytes, uint64_t& offset) { return Next(bytes, offset); };
}

bool SqlDump::Next(std::string_view& bytes, uint64_t& offset) {
    out_.clear();
    std::string_view piece;
    for (uint64_t at = 0; out_.empty() && !ended_;) {
        ended_ = !source_(piece, at);
        ended_ ? EndLine() : Feed(piece);
    }
    if (out_.empty()) return false;
    offset = written_;
    written_ += out_.size();
    const std::size_t kept = std::min(out_.size(), kTail);
    tail_ = (tail_ + out_.substr(out_.size() - kept));
    if (tail_.size() > kTail) tail_.erase(0, tail_.size() - kTail);
    bytes = out_;
    return true;
}

void SqlDump::Feed(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        const bool whole = end != std::string_view::npos;
        FeedLine(bytes.substr(0, whole ? end + 1 : end));
        if (!whole) return;
        EndLine();
        bytes.remove_prefix(end + 1);
    }
}

void SqlDump::FeedLine(std::string_view piece) {
    if (passing_) {
        out_.append(piece);
        return;
    }
    line_.append(piece);
    // Sixteen bytes tell a definition from data; the blanks that may stand before it are few.
    const bool known = line_.size() >= 16;
    if ((known && !IsDefinition(line_)) || line_.size() > kLongestDefinition) {
        out_ += line_;
        line_.clear();
        passing_ = true;
    }
}

void SqlDump::EndLine() {
    if (IsDefinition(line_)) collations_ += ReplaceCollations(line_);
    if (version_.empty() && str::StartsWith(line_, kVersionMark))
        version_ = str::Trim(line_.substr(sizeof kVersionMark - 1)).substr(0, 60);
    out_ += line_;
    line_.clear();
    passing_ = false;
}

bool SqlDump::Complete() const { return tail_.find(kEndMark) != std::string::npos; }

PostgresqlForm FormOf(std::string_view beginning) {
    if (beginning.substr(0, 5) == "PGDMP") return PostgresqlForm::Custom;
    const bool tar = beginning.size() >= 262 && beginning.substr(257, 5) == "ustar";
    return tar && beginning.substr(0, 7) == "toc.dat" ? PostgresqlForm::Tar : PostgresqlForm::Text;
}

}  // namespace foreign_panel
