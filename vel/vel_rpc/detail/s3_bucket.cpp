#include "vel/vel_rpc/detail/s3_bucket.h"

#include <algorithm>
#include <cctype>
#include <sstream>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/transfer.h"

namespace vel_rpc::detail {
namespace {

constexpr const char* kService = "S3";
constexpr uint64_t kMaxAnswer = 16 << 20;  // a page of 1000 keys of 1 KiB, escaped
constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kPartMiB = 16, kMinPartMiB = 5, kMaxPartMiB = 1024;

[[noreturn]] void BadCredential(const std::string& member) {
    throw vel_err::Error("storage", "bad_credential", std::string(kService) + ": " + member);
}

std::string EncodePath(const std::string& key) {
    return str::Replace(str::url::Encode(key), "%2F", "/");
}

std::string EncodeQuery(const S3Bucket::Query& query) {
    std::string text;
    for (const auto& [name, value] : query) {
        str::Append(text, str::url::Encode(name) + "=" + str::url::Encode(value), "&");
    }
    return text.empty() ? "" : "?" + text;
}

std::string EtagOf(std::string quoted) {
    quoted.erase(std::remove(quoted.begin(), quoted.end(), '"'), quoted.end());
    return str::Lower(quoted);
}

/// Neither wants to be a path nor changes the host.
bool IsBucketName(const std::string& name) {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == '_';
    };
    return name.size() >= 3 && std::isalnum(static_cast<unsigned char>(name[0])) &&
           std::all_of(name.begin(), name.end(), allowed) && name.find("..") == std::string::npos;
}

/// "http://host[:port][/path]" without user, query and odd bytes.
bool IsEndpoint(const std::string& url) {
    const bool http = str::StartsWith(url, "http://") || str::StartsWith(url, "https://");
    const auto odd = [](unsigned char c) { return c <= ' ' || c >= 0x7f; };
    return http && url.find_first_of("@?#\\%") == std::string::npos &&
           std::none_of(url.begin(), url.end(), odd) &&
           url.find("//") + 2 != std::min(url.find('/', url.find("//") + 2), url.size());
}

/// The address of the bucket, ending in "/".
std::string BaseUrl(std::map<std::string, std::string>& credential) {
    std::string endpoint = credential["endpoint"];
    const std::string& bucket = credential["bucket"];
    const std::string& style = credential["path_style"];
    if (!IsBucketName(bucket)) BadCredential("bucket");
    if (!style.empty() && style != "yes" && style != "no") BadCredential("path_style");
    const bool in_path = style == "yes" || (style.empty() && !endpoint.empty());
    if (endpoint.empty()) endpoint = "https://s3." + credential["region"] + ".amazonaws.com";
    if (endpoint.find("://") == std::string::npos) endpoint = "https://" + endpoint;
    if (!IsEndpoint(endpoint)) BadCredential("endpoint");
    while (endpoint.back() == '/') endpoint.pop_back();
    if (in_path) return endpoint + "/" + bucket + "/";
    return endpoint.insert(endpoint.find("//") + 2, bucket + ".") + "/";
}

uint64_t PartSizeOf(const std::string& mib) {
    if (mib.empty()) return kPartMiB * kMiB;
    const int64_t n = str::Int64(mib);
    if (n < int64_t{kMinPartMiB} || n > int64_t{kMaxPartMiB}) BadCredential("part_size");
    return static_cast<uint64_t>(n) * kMiB;
}

std::string CodeOf(const std::string& body) {
    std::string words = Excerpt(body);
    return str::GetWord(words, ": ");
}

bool IsDeadKey(const std::string& code, long status) {
    return status == 401 || code == "InvalidAccessKeyId" || code == "SignatureDoesNotMatch" ||
           code == "InvalidToken" || code == "ExpiredToken";
}

bool IsNoRoom(const std::string& code, long status) {
    return status == 507 || code == "QuotaExceeded" || code == "InsufficientStorage";
}

bool IsForAMoment(const std::string& code) {
    return code == "InternalError" || code == "SlowDown" || code == "ServiceUnavailable";
}

/// An empty document for what is none.
vel_xml::Xml Parse(const std::string& body) {
    try {
        return vel_xml::Xml::FromString(body);
    } catch (const vel_err::Error&) {
        return {};
    }
}

/// Text that was encoded on our wish, as the answer says.
class Decoder {
public:
    explicit Decoder(const vel_xml::XmlNode& root) {
        for (auto node = root.FirstChild(); node; node = node.Next()) {
            if (node.Name() == "EncodingType") encoded_ = node.Str() == "url";
        }
    }
    std::string operator()(const std::string& text) const {
        return encoded_ ? str::url::Decode(text) : text;
    }

private:
    bool encoded_ = false;
};

std::string Child(const vel_xml::XmlNode& parent, const char* name) {
    for (auto node = parent.FirstChild(); node; node = node.Next()) {
        if (node.Name() == name) return node.Str();
    }
    return "";
}

/// What XML can hold and every server reads alike; other keys are deleted one by one.
bool IsPlainText(const std::string& key) {
    return std::all_of(key.begin(), key.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

std::string KeyOf(const std::string& path) {
    std::vector<std::string> parts;
    str::Split(path, "/", parts);
    std::string key;
    for (const std::string& part : parts) str::Append(key, part, "/");
    return !key.empty() && path.back() == '/' ? key + "/" : key;
}

S3Bucket::S3Bucket(const std::string& credential) : http_(kService) {
    auto members = ReadCredential(kService, credential);
    std::string& region = members["region"];
    if (region.empty()) region = "us-east-1";
    if (!std::all_of(region.begin(), region.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; })) {
        BadCredential("region");
    }
    base_ = BaseUrl(members);
    signing_ = "aws:amz:" + region + ":s3";
    access_key_ = members["access_key"];
    secret_key_ = members["secret_key"];
    if (access_key_.empty()) BadCredential("access_key");
    if (secret_key_.empty()) BadCredential("secret_key");
    part_size_ = PartSizeOf(members["part_size"]);
}

void S3Bucket::Forget() {
    access_key_.clear();
    secret_key_.clear();
}

void S3Bucket::Fail(const std::string& step, const std::string& key,
                    const Response& response) const {
    const std::string code = CodeOf(response.body);
    const std::string text = std::string(kService) + ": " + step + " '" + key + "': status " +
                             std::to_string(response.status) + " " + Excerpt(response.body);
    if (IsDeadKey(code, response.status)) throw vel_err::Error("unauthorized", "storage", text);
    if (IsNoRoom(code, response.status)) throw vel_err::Error("storage", "no_room", text);
    const bool missed = response.status == 404 && (code == "NoSuchKey" || code.empty());
    throw vel_err::Error("storage", missed ? "missed" : "refused", text);
}

Request S3Bucket::Make(const std::string& method, const std::string& key,
                       const Query& query) const {
    if (access_key_.empty())
        throw vel_err::Error("unauthorized", "storage", std::string(kService) + ": given up");
    Request request;
    request.method = method;
    request.url = base_ + EncodePath(key) + EncodeQuery(query);
    // Bodies are signed by their Content-MD5.
    request.headers = {"x-amz-content-sha256: UNSIGNED-PAYLOAD"};
    request.sigv4 = signing_;
    request.access_key = access_key_;
    request.secret_key = secret_key_;
    return request;
}

std::string S3Bucket::Ask(const std::string& step, Request request, const std::string& key) {
    std::ostringstream text;
    if (!request.body.empty()) {
        const std::string md5 = vel_hash::Digest(vel_hash::HashType::Md5, request.body);
        request.headers.push_back("Content-MD5: " + str::base64::Encode(md5));
    }
    request.sink = &text;
    request.max_answer = kMaxAnswer;
    const Response response = http_.SendRetried(request, [&text] {
        text.str("");
        return true;
    });
    if (!response.Ok()) Fail(step, key, response);
    return text.str();
}

vel_xml::Xml S3Bucket::AskXml(const std::string& step, const Request& request,
                              const std::string& key, const std::string& root) {
    for (int n = 1;; ++n) {
        Response answer;
        answer.status = 200;
        answer.body = Ask(step, request, key);
        const vel_xml::Xml xml = Parse(answer.body);
        const std::string name = xml.GetRoot().Name();
        if (name == root) return xml;
        // The server had to answer with its status before it knew.
        if (name != "Error") answer.body = "<Error><Code>UnknownAnswer</Code></Error>";
        if (n > kRepetitions || !IsForAMoment(CodeOf(answer.body))) Fail(step, key, answer);
        vel_proc::Sleep(static_cast<int>(PauseBefore(n, answer).count()));
    }
}

void S3Bucket::Get(const std::string& key, std::ostream& out) {
    Request request = Make("GET", key);
    request.sink = &out;
    const Response response = http_.SendRetried(request);
    if (!response.Ok()) Fail("get", key, response);
    if (!response.TellsItsEnd())
        throw vel_err::Error("storage", "refused", "S3: get '" + key + "': an answer of no length");
}

std::optional<S3Bucket::Object> S3Bucket::Head(const std::string& key) {
    const Response response = http_.SendRetried(Make("HEAD", key));
    if (response.status == 404) return std::nullopt;
    if (!response.Ok()) Fail("look at", key, response);
    Object object;
    object.size = static_cast<uint64_t>(str::Int64(response.Header("content-length")));
    object.etag = EtagOf(response.Header("etag"));
    object.etag_is_md5 = response.Header("x-amz-server-side-encryption") != "aws:kms" &&
                         response.Header("x-amz-server-side-encryption-customer-algorithm").empty();
    return object;
}

void S3Bucket::PutObject(const std::string& key, std::string body, const std::string& md5) {
    Request request = Make("PUT", key);
    request.headers.push_back("Content-MD5: " + str::base64::Encode(md5));
    request.body = std::move(body);
    const Response response = http_.SendRetried(request);
    if (!response.Ok()) Fail("put", key, response);
}

void S3Bucket::Delete(const std::string& key) { Ask("delete", Make("DELETE", key), key); }

void S3Bucket::DeleteMany(const std::vector<std::string>& keys) {
    vel_xml::Xml order = vel_xml::Xml::FromString("<Delete><Quiet>true</Quiet></Delete>");
    std::size_t ordered = 0;
    for (const std::string& key : keys) {
        if (!IsPlainText(key)) {
            Delete(key);
            continue;
        }
        order.GetRoot().AppendChild("Object").AppendChild("Key", key);
        ++ordered;
    }
    if (ordered == 0) return;
    Request request = Make("POST", "", {{"delete", ""}});
    request.body = order.Str();
    const vel_xml::Xml answer = AskXml("delete", request, keys.front(), "DeleteResult");
    for (auto node = answer.GetRoot().FirstChild(); node; node = node.Next()) {
        if (node.Name() != "Error" || Child(node, "Code") == "NoSuchKey") continue;
        throw vel_err::Error("storage", "refused",
                             "S3: delete '" + Child(node, "Key") + "': " + Child(node, "Code"));
    }
}

S3Bucket::Page S3Bucket::List(const std::string& prefix, const std::string& delimiter, int limit,
                              const std::string& from) {
    Query query = {{"encoding-type", "url"},
                   {"list-type", "2"},
                   {"max-keys", std::to_string(limit)},
                   {"prefix", prefix}};
    if (!delimiter.empty()) query["delimiter"] = delimiter;
    if (!from.empty()) query["continuation-token"] = from;
    const vel_xml::Xml xml = AskXml("list", Make("GET", "", query), prefix, "ListBucketResult");
    const Decoder decode(xml.GetRoot());
    Page page;
    bool more = false;
    for (auto node = xml.GetRoot().FirstChild(); node; node = node.Next()) {
        const std::string name = node.Name();
        if (name == "Contents") page.keys.push_back(decode(Child(node, "Key")));
        if (name == "CommonPrefixes") page.folders.push_back(decode(Child(node, "Prefix")));
        if (name == "NextContinuationToken") page.next = node.Str();
        if (name == "IsTruncated") more = node.Str() == "true";
    }
    if (!more) page.next.clear();
    if (more && (page.next.empty() || page.next == from))
        throw vel_err::Error("storage", "refused", "S3: list '" + prefix + "': it does not end");
    return page;
}

std::string S3Bucket::BeginUpload(const std::string& key) {
    const vel_xml::Xml xml = AskXml("begin upload of", Make("POST", key, {{"uploads", ""}}), key,
                                    "InitiateMultipartUploadResult");
    const std::string id = Child(xml.GetRoot(), "UploadId");
    if (id.empty())
        throw vel_err::Error("storage", "refused", "S3: begin upload of '" + key + "': no id");
    return id;
}

Request S3Bucket::PartRequest(const std::string& key, const std::string& id, int number,
                              std::string body, const std::string& md5) const {
    Request request = Make("PUT", key, {{"partNumber", std::to_string(number)}, {"uploadId", id}});
    request.headers.push_back("Content-MD5: " + str::base64::Encode(md5));
    request.body = std::move(body);
    return request;
}

std::string S3Bucket::CheckPart(const std::string& key, const Response& response,
                                const std::string& md5) const {
    if (!response.Ok()) Fail("upload a part of", key, response);
    const bool comparable = response.Header("x-amz-server-side-encryption") != "aws:kms";
    const std::string etag = EtagOf(response.Header("etag"));
    if (etag.empty() || (comparable && etag != str::hex::Encode(md5)))
        throw vel_err::Error("storage", "refused",
                             "S3: upload a part of '" + key + "': the checksum is another");
    return etag;
}

bool S3Bucket::CompleteUpload(const std::string& key, const std::string& id,
                              const std::vector<std::string>& etags) {
    vel_xml::Xml order = vel_xml::Xml::FromString("<CompleteMultipartUpload/>");
    int number = 0;
    for (const std::string& etag : etags) {
        vel_xml::XmlNode part = order.GetRoot().AppendChild("Part");
        part.AppendChild("PartNumber", std::to_string(++number));
        part.AppendChild("ETag", etag);
    }
    Request request = Make("POST", key, {{"uploadId", id}});
    request.body = order.Str();
    try {
        AskXml("complete upload of", request, key, "CompleteMultipartUploadResult");
    } catch (const vel_err::Error& e) {
        if (e.value().find(" NoSuchUpload") == std::string::npos) throw;
        return false;
    }
    return true;
}

bool S3Bucket::AbortUpload(const std::string& key, const std::string& id) {
    const Response response = http_.SendRetried(Make("DELETE", key, {{"uploadId", id}}));
    if (!response.Ok() && response.status != 404) Fail("abort upload of", key, response);
    return response.Ok();
}

/// No document when the server does not know the upload.
vel_xml::Xml S3Bucket::ListParts(const std::string& key, const Query& query) {
    try {
        return AskXml("list parts of", Make("GET", key, query), key, "ListPartsResult");
    } catch (const vel_err::Error& e) {
        const bool is_gone = e.object() == "missed" ||  // so Ceph calls it
                             e.value().find(" NoSuchUpload") != std::string::npos;
        if (!is_gone) throw;
        return {};
    }
}

std::time_t S3Bucket::NewestPart(const std::string& key, const std::string& id) {
    Query query = {{"uploadId", id}};
    std::time_t newest = 0;
    for (int last = 0;;) {  // a number of a part
        const vel_xml::Xml xml = ListParts(key, query);
        const vel_xml::XmlNode root = xml.GetRoot();
        for (auto node = root.FirstChild(); node; node = node.Next()) {
            if (node.Name() != "Part") continue;
            const std::string came = Child(node, "LastModified");
            newest = std::max(newest, TimeOf(kService, "list parts of '" + key + "'", came));
        }
        if (Child(root, "IsTruncated") != "true") return newest;
        const int next = str::Int(Child(root, "NextPartNumberMarker"));
        if (next <= last)
            throw vel_err::Error("storage", "refused", "S3: list parts: it does not end");
        query["part-number-marker"] = std::to_string(last = next);
    }
}

S3Bucket::UploadsPage S3Bucket::ListUploads(const std::string& prefix, const UploadsPage& last) {
    // Not encoded: Ceph 16 would encode the keys without saying so.
    Query query = {{"prefix", prefix}, {"uploads", ""}};
    if (!last.next_key.empty()) query["key-marker"] = last.next_key;
    if (!last.next_id.empty()) query["upload-id-marker"] = last.next_id;
    const vel_xml::Xml xml =
        AskXml("list uploads below", Make("GET", "", query), prefix, "ListMultipartUploadsResult");
    const vel_xml::XmlNode root = xml.GetRoot();
    UploadsPage page;
    for (auto node = root.FirstChild(); node; node = node.Next()) {
        if (node.Name() != "Upload") continue;
        page.uploads.push_back(
            {Child(node, "Key"), Child(node, "UploadId"), Child(node, "Initiated")});
    }
    if (Child(root, "IsTruncated") != "true") return page;
    page.next_key = Child(root, "NextKeyMarker");
    page.next_id = Child(root, "NextUploadIdMarker");
    if (page.next_key == last.next_key && page.next_id == last.next_id)
        throw vel_err::Error("storage", "refused", "S3: list uploads: it does not end");
    return page;
}

}  // namespace vel_rpc::detail
