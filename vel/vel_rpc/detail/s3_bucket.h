/// The requests to one S3 bucket, signed, sent and checked.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_xml.h"

namespace vel_rpc::detail {

/// "a//b/" -> "a/b/": a path as a key, or as the beginning of keys when it ends in "/". The root
/// gives "".
std::string KeyOf(const std::string& path);

/// Keys are byte strings. Every failure throws as vel_rpc::Cloud says; besides, "storage" with the
/// object "no_room".
class S3Bucket {
public:
    using Query = std::map<std::string, std::string>;  // signing wants it sorted

    explicit S3Bucket(const std::string& credential);

    struct Object {
        uint64_t size = 0;
        std::string etag;         ///< without quotes, lower case
        bool etag_is_md5 = true;  ///< not when the server encrypts with a key of its own
    };
    struct Page {
        std::vector<std::string> keys;     ///< whole keys
        std::vector<std::string> folders;  ///< whole beginnings, ending in "/"
        std::string next;                  ///< "" for the last page
    };
    struct Unfinished {
        std::string key, id, began;  ///< began: "2024-03-01T10:00:00.000Z"
    };
    struct UploadsPage {
        std::vector<Unfinished> uploads;
        std::string next_key, next_id;  ///< "" for the last page
    };

    uint64_t PartSize() const { return part_size_; }  ///< of the first parts
    void Forget();

    void Get(const std::string& key, std::ostream& out);
    /// Nothing when there is no such key.
    std::optional<Object> Head(const std::string& key);
    /// `md5`: the raw digest of the body.
    void PutObject(const std::string& key, std::string body, const std::string& md5);
    void Delete(const std::string& key);
    /// Keys that are not there are no error.
    void DeleteMany(const std::vector<std::string>& keys);
    Page List(const std::string& prefix, const std::string& delimiter, int limit,
              const std::string& from);

    std::string BeginUpload(const std::string& key);
    Request PartRequest(const std::string& key, const std::string& id, int number, std::string body,
                        const std::string& md5) const;
    /// The etag of a stored part, from the answer to its PartRequest; compares the checksum.
    std::string CheckPart(const std::string& key, const Response& response,
                          const std::string& md5) const;
    /// False: the server does not know the upload (any more).
    bool CompleteUpload(const std::string& key, const std::string& id,
                        const std::vector<std::string>& etags);
    /// False: the server does not know the upload.
    bool AbortUpload(const std::string& key, const std::string& id);
    UploadsPage ListUploads(const std::string& prefix, const UploadsPage& last);
    /// When the last part of an unfinished upload came; 0 without parts, or when the server does
    /// not know the upload (any more).
    std::time_t NewestPart(const std::string& key, const std::string& id);

    Http& Connection() { return http_; }

private:
    [[noreturn]] void Fail(const std::string& step, const std::string& key,
                           const Response& response) const;
    Request Make(const std::string& method, const std::string& key, const Query& query = {}) const;
    /// Sends and wants a 2xx; the body of the answer is returned.
    std::string Ask(const std::string& step, Request request, const std::string& key);
    vel_xml::Xml AskXml(const std::string& step, const Request& request, const std::string& key,
                        const std::string& root);
    vel_xml::Xml ListParts(const std::string& key, const Query& query);

    Http http_;
    std::string base_, signing_, access_key_, secret_key_;
    uint64_t part_size_;
};

}  // namespace vel_rpc::detail
