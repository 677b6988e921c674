#include "sbin/backup2/output.h"

#include <algorithm>
#include <cstdio>

#include "vel/str.h"

namespace backup2_admin {

std::string HumanSize(uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1000 && unit + 1 < std::size(kUnits); ++unit) value /= 1024;
    char text[64];
    std::snprintf(text, sizeof text, "%.*f %s", unit == 0 ? 0 : 1, value, kUnits[unit]);
    return text;
}

std::string HumanRate(uint64_t bytes, double seconds) {
    if (seconds < 0.01) return "";
    return HumanSize(static_cast<uint64_t>(static_cast<double>(bytes) / seconds)) + "/s";
}

std::string Plural(uint64_t n, const std::string& word) {
    return str::Str(n) + " " + word + (n == 1 ? "" : "s");
}

std::string HumanTime(double seconds) {
    const auto s = static_cast<long>(seconds + 0.5);
    char text[64];
    if (s >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    }
    return text;
}

std::string Printable(const std::string& name) {
    return str::badchars::Escape(name, str::badchars::Controls(), '\\');
}

std::string Table::Str() const {
    std::vector<std::size_t> widths(alignment_.size(), 0);
    auto rows = rows_;
    for (auto& row : rows) {
        std::transform(row.begin(), row.end(), row.begin(), Printable);
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string pad(widths[i] - row[i].size(), ' ');
            line += (i ? "  " : "") + (alignment_[i] == 'r' ? pad + row[i] : row[i] + pad);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace backup2_admin
