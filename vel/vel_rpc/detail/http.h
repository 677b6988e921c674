/// HTTP as the clients of cloud storages need it: streamed bodies both ways, honest failures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace vel_rpc::detail {

struct Request {
    std::string method = "GET";
    std::string url;                   ///< http or https; everything in it is encoded already
    std::vector<std::string> headers;  ///< "Name: value", without line ends
    std::string body;                  ///< sent when `source` is null
    /// The body as a stream: exactly `size` bytes, or in chunked coding up to its end. A source
    /// that throws, or ends before `size`, makes Send throw; the server sees a broken request.
    std::istream* source = nullptr;
    std::optional<uint64_t> size;
    /// Takes the body of a 2xx answer; every other body goes to Response::body (first 64 KiB).
    std::ostream* sink = nullptr;
    std::optional<uint64_t> max_answer;  ///< a longer body for the sink throws "storage", "refused"
    /// Sign with AWS Signature Version 4: "aws:amz:<region>:s3", and the two keys.
    std::string sigv4, access_key, secret_key;
    std::string ca_file;           ///< whose certificates count, instead of BACKUP2_CA_FILE
    bool any_certificate = false;  ///< the server's certificate proves nothing
    long limit_seconds = 0;        ///< of the whole exchange, in place of the limit of silence
};

struct Response {
    long status = 0;
    std::map<std::string, std::string> headers{};  ///< names in lower case
    std::string body{};
    bool Ok() const { return status >= 200 && status < 300; }
    std::string Header(const std::string& lower_case_name) const;  ///< "" when absent
    /// Else the end of the connection is the end of the body, wherever it comes.
    bool TellsItsEnd() const;
};

/// One connection, kept between requests. Certificates are verified; only http and https; no
/// redirect is followed (a 3xx is a Response like any other); no proxy is taken from the
/// environment. Time limits: 30 s to connect, and 60 s without a byte in either direction, or with
/// less than 16 bytes a second of a long body (time that the source or the sink takes is not
/// counted). From the environment: BACKUP2_STALL_SECONDS instead of these 60, BACKUP2_CA_FILE
/// instead of the system's certificate authorities.
class Http {
public:
    /// `service` begins every message: "Dropbox".
    explicit Http(std::string service);
    ~Http();
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    /// One attempt. Throws vel_err::Error("network", service, reason) when no whole answer came;
    /// what the source or the sink throws passes unchanged. Neither names a header or a query.
    Response Send(const Request& request);

    /// Repeats what failed for a moment (no answer, 429, 5xx but 507) up to four times, with
    /// growing pauses or the server's Retry-After (at most 60 s). `again` is asked before each
    /// further attempt and says whether the request can be made once more: a source must be back
    /// at its beginning, a sink must not have taken bytes. Without `again` that is so while the
    /// source gave and the sink took nothing. The last Response is returned, a last failure thrown.
    /// BACKUP2_RETRY_MS: the first pause (1000).
    Response SendRetried(const Request& request, const std::function<bool()>& again = {});

private:
    class Handle;
    std::unique_ptr<Handle> handle_;
};

/// Several requests at a time, in the calling thread: bytes move only while Work runs, and time
/// between its calls is no stall. Otherwise as Http.
class HttpBatch {
public:
    struct Done {
        int tag;
        Request request;  ///< as it was given to Start
        Response response;
        std::exception_ptr failure;  ///< what Http::Send would have thrown
        bool worth_repeating;        ///< a failure for a moment, as in SendRetried
    };

    explicit HttpBatch(std::string service);
    ~HttpBatch();  ///< drops
    HttpBatch(const HttpBatch&) = delete;
    HttpBatch& operator=(const HttpBatch&) = delete;

    void Start(int tag, Request request);
    std::size_t UnderWay() const;
    /// Moves what can be moved, after waiting up to `wait_ms` for that; what ended meanwhile.
    std::vector<Done> Work(int wait_ms);
    void Drop();  ///< breaks off what is under way

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

/// For errors: the provider's own short words in `body` (JSON or XML), cut to one line of 200
/// bytes without control bytes.
std::string Excerpt(const std::string& body);

/// Members of a credential, which is base64 of a JSON object of strings. Throws
/// vel_err::Error("storage", "bad_credential", service) without quoting any of it.
std::map<std::string, std::string> ReadCredential(const std::string& service,
                                                  const std::string& credential);

}  // namespace vel_rpc::detail
