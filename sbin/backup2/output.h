/// How backup2 writes numbers, names and tables.
#pragma once

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

namespace backup2_admin {

std::string HumanSize(uint64_t bytes);                  ///< "1.2 GiB", "512 B"
std::string HumanRate(uint64_t bytes, double seconds);  ///< "98.4 MiB/s", "" when too short to tell
std::string Plural(uint64_t n, const std::string& word);  ///< "1 file", "2 files"
std::string HumanTime(double seconds);                    ///< "0:07", "1:02:03"
/// A name of a user's file, fit for a terminal: control bytes as \n or \033, a backslash doubled.
std::string Printable(const std::string& name);

/// On standard output; bytes that are not UTF-8 become U+FFFD.
template <class Json>
void PrintJson(const Json& json) {
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << std::endl;
}

/// Columns as wide as their widest cell, made fit for a terminal; the first row is the heading.
class Table {
public:
    /// One letter a column: "l" left, "r" right.
    explicit Table(std::string alignment) : alignment_(std::move(alignment)) {}
    void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    std::string Str() const;

private:
    std::string alignment_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace backup2_admin
