/// Sizes and digests of byte streams.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace backup2_cp {

struct Sums {
    uint64_t size = 0;
    std::string sha256;  ///< lower-case hex
    bool operator==(const Sums&) const = default;
};

/// One slice before and after encryption; the value of "slice.K" in an info file:
/// "<plain size> <stored size> <sha256 of the plain bytes> <sha256 of the stored bytes>".
struct SliceSums {
    Sums plain, stored;
    std::string Str() const;
    /// Throws std::runtime_error for a text of another form.
    static SliceSums Parse(const std::string& text);
};

/// A stream that counts and hashes what is written to it and hands it on.
class SumStream : public std::ostream {
public:
    using Next = std::function<void(const char* data, std::size_t size)>;
    /// More than `limit` bytes are an error: throws Permanent "more than N bytes".
    explicit SumStream(uint64_t limit = UINT64_MAX, Next next = {});
    ~SumStream() override;
    Sums Result();  ///< once, at the end

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
};

/// Writes everything that `in` holds to `out`. Throws for a read or write error.
void Pump(std::istream& in, std::ostream& out);
/// Reads a regular file; `stop` (when given and set) ends it early.
Sums SumFile(const std::string& path, const std::atomic<bool>* stop = nullptr);

}  // namespace backup2_cp
