#include "vel/vel_rpc/detail/s3_upload.h"

#include <algorithm>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"

namespace vel_rpc::detail {
namespace {

const vel_log::Module logger("vel_rpc");

constexpr int kMaxParts = 10'000;
constexpr int kEvenParts = 1'000, kGrowth = 100;
constexpr int kWaitMs = 1000;
constexpr std::size_t kPiece = 1 << 20;  // read, summed and followed by a look at the network

}  // namespace

uint64_t PartSize(uint64_t first, int number) {
    const auto beyond = static_cast<uint64_t>(std::max(0, number - kEvenParts));
    return first + first / kGrowth * beyond;
}

S3Upload::S3Upload(S3Bucket& bucket, std::string key, std::istream& in)
    : bucket_(bucket), key_(std::move(key)), in_(in), batch_("S3") {}

void S3Upload::Run() {
    const uint64_t size = PartSize(bucket_.PartSize(), 1);
    std::string first = ReadPart(size);
    if (first.size() == size) return RunInParts(std::move(first));
    bucket_.PutObject(key_, std::move(first), last_md5_);
    Check(str::hex::Encode(last_md5_));
}

/// Less than `size` bytes only at the end of the stream.
std::string S3Upload::ReadPart(uint64_t size) {
    std::string part = std::move(spare_);
    part.clear();
    vel_hash::Hash md5(vel_hash::HashType::Md5);
    while (part.size() < size && !in_.eof()) {
        const std::size_t before = part.size();
        const std::size_t wanted = std::min<uint64_t>(kPiece, size - before);
        part.resize(before + wanted);
        in_.read(&part[before], static_cast<std::streamsize>(wanted));
        const auto n = static_cast<std::size_t>(in_.gcount());
        part.resize(before + n);
        if (in_.bad() || (n < wanted && !in_.eof()))
            throw vel_err::Error("storage", "source", "the data to be sent cannot be read");
        md5.Update(&part[before], n);
        Work(0);
    }
    total_ += part.size();
    last_md5_ = md5.Str();
    return part;
}

void S3Upload::RunInParts(std::string first) {
    upload_id_ = bucket_.BeginUpload(key_);
    try {
        for (std::string body = std::move(first); !body.empty();
             body = ReadPart(PartSize(bucket_.PartSize(), static_cast<int>(parts_.size()) + 1))) {
            Start(std::move(body));
            while (batch_.UnderWay() > 1) Work(kWaitMs);
        }
        while (batch_.UnderWay() > 0) Work(kWaitMs);
        Complete();
    } catch (...) {
        Abort();
        throw;
    }
}

void S3Upload::Start(std::string body) {
    if (parts_.size() == kMaxParts)
        throw vel_err::Error("storage", "refused", "S3: put '" + key_ + "': over 10,000 parts");
    parts_.push_back({last_md5_, ""});
    const int number = static_cast<int>(parts_.size());
    batch_.Start(number, bucket_.PartRequest(key_, upload_id_, number, std::move(body), last_md5_));
}

void S3Upload::Work(int wait_ms) {
    if (batch_.UnderWay() == 0) return;
    for (HttpBatch::Done& done : batch_.Work(wait_ms)) Settle(std::move(done));
}

void S3Upload::Settle(HttpBatch::Done done) {
    // The part is still in memory: it can be sent again as often as it pays.
    if (done.worth_repeating) {
        done.response = bucket_.Connection().SendRetried(done.request);
    } else if (done.failure) {
        std::rethrow_exception(done.failure);
    }
    Part& part = parts_[static_cast<std::size_t>(done.tag) - 1];
    part.etag = bucket_.CheckPart(key_, done.response, part.md5);
    spare_ = std::move(done.request.body);
}

/// When the answer to a first attempt was lost, the next one meets an upload that is complete.
void S3Upload::Complete() {
    std::string md5s;
    std::vector<std::string> etags;
    for (const Part& part : parts_) {
        md5s += part.md5;
        etags.push_back(part.etag);
    }
    const std::string whole = vel_hash::Digest(vel_hash::HashType::Md5, md5s);
    const std::string etag = str::hex::Encode(whole) + "-" + std::to_string(parts_.size());
    if (!bucket_.CompleteUpload(key_, upload_id_, etags) && !IsStored(etag))
        throw vel_err::Error("storage", "refused", "S3: put '" + key_ + "': the upload is gone");
    upload_id_.clear();
    Check(etag);
}

void S3Upload::Abort() noexcept {
    if (upload_id_.empty()) return;
    try {
        batch_.Drop();  // a part that arrives later would stay
        bucket_.AbortUpload(key_, upload_id_);
    } catch (const std::exception& e) {
        logger.Write(4, "Parts of an upload are left on the storage: %s", e.what());
    }
}

bool S3Upload::IsStored(const std::string& etag) {
    const auto stored = bucket_.Head(key_);
    return stored && stored->size == total_ && (!stored->etag_is_md5 || stored->etag == etag);
}

/// Takes away what is not what was sent: nobody must find it under the name of a backup.
void S3Upload::Check(const std::string& etag) {
    if (IsStored(etag)) return;
    bucket_.Delete(key_);
    throw vel_err::Error("storage", "refused",
                         "S3: put '" + key_ + "': size or checksum on the storage is another");
}

}  // namespace vel_rpc::detail
