/// gzip, checked to the last byte: libarchive's own reader passes over wrong sums.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace foreign_panel {

class Gunzip {
public:
    using Source = std::function<std::string_view()>;
    /// `source` gives bytes that begin with a gzip header; `name` is for messages.
    Gunzip(Source source, std::string name);
    ~Gunzip();
    /// Up to `room` further plain bytes; 0 at the end. Several members follow each other; zeros may
    /// follow the last. Throws std::runtime_error "<name>: damaged: ..." for wrong data and sums
    /// and for an end that comes too early, and what the source throws.
    std::size_t Read(char* to, std::size_t room);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace foreign_panel
