/// One stream into one key of an S3 bucket.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "vel/vel_hash.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_rpc/detail/s3_bucket.h"

namespace vel_rpc::detail {

/// The size of part `number` (from 1) when the first parts have `first` bytes: the same for the
/// first 1,000, then growing, so that 10,000 parts of 16 MiB at first hold over 6 TiB.
uint64_t PartSize(uint64_t first, int number);

/// At most two parts are in memory: one is read while the one before it is under way.
class S3Upload {
public:
    S3Upload(S3Bucket& bucket, std::string key, std::istream& in);

    /// Stores the stream up to its end and looks at what is stored. Throws what S3Bucket throws
    /// and what the stream throws; the key is then as before, and parts that were sent are gone.
    void Run();

private:
    struct Part {
        std::string md5, etag;
    };

    std::string ReadPart(uint64_t size);
    void RunInParts(std::string first);
    void Start(std::string body);
    void Work(int wait_ms);
    void Settle(HttpBatch::Done done);
    void Complete();
    void Abort() noexcept;
    bool IsStored(const std::string& etag);
    void Check(const std::string& etag);

    S3Bucket& bucket_;
    const std::string key_;
    std::istream& in_;
    HttpBatch batch_;
    std::string upload_id_, spare_;
    std::string last_md5_;  // of what ReadPart read
    std::vector<Part> parts_;
    uint64_t total_ = 0;
};

}  // namespace vel_rpc::detail
