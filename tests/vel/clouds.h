/// The clients of Dropbox, Google Drive and Yandex Disk, against servers that speak the providers'
/// protocols strictly: what a client does against the protocol fails the test, whatever comes of
/// it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "vel/vel_rpc/cloud.h"

#include "tests/support/server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace clouds {

using Names = std::vector<std::string>;

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kTwoChunks = 16 * kMiB + 5, kThreeChunks = 32 * kMiB + 5;

/// A prepared answer; "@" is where the server is that takes or gives bytes.
struct Prepared {
    std::string status, body = "", headers = "";
};

/// A provider, and how it deviates from the others.
struct Row {
    std::string server, service;
    int busy_status;     // of the provider's own, besides 429 and 5xx
    bool resumes;        // an upload that broke off goes on
    bool folds_case;     // names are compared without case
    bool turns_refresh;  // a refresh ends the old refresh token
    std::string upload;  // matches the requests that carry bytes of long files
    std::size_t size;    // of a file that makes the client send all of these
    Names steps;         // match each kind of request
    /// The answers up to the upload of one file whose bytes the service damages, and then.
    std::vector<Prepared> liar;
    std::string removal;  // the request that must come last then
    std::vector<Prepared> before_download;
    std::function<std::unique_ptr<vel_rpc::Cloud>(const std::string& credential)> open = {};
};

void PrintTo(const Row& row, std::ostream* out);
Row DropboxRow();
Row GoogleDriveRow();
Row YandexRow();
inline auto AllRows() { return testing::Values(DropboxRow(), GoogleDriveRow(), YandexRow()); }
std::string NameOf(const testing::TestParamInfo<Row>& row);

std::string Sha256(const std::string& bytes);
int Put(vel_rpc::Cloud& cloud, const std::string& path, const std::string& bytes);
std::string Get(vel_rpc::Cloud& cloud, const std::string& path);
Names List(vel_rpc::Cloud& cloud, const std::string& path);  ///< sorted
/// Every operation once, in a folder of its own; what went wrong, or "".
std::string Life(vel_rpc::Cloud& cloud, const std::string& bytes);

/// "unauthorized", "storage|missed", "network|Dropbox"...: without the words.
template <class Call>
std::string Kind(const Call& call) {
    const std::string failure = Failure(call);
    return failure.substr(0, failure.rfind('|'));
}

class CloudClient : public testing::TestWithParam<Row> {
protected:
    void TearDown() override { EXPECT_EQ(State("violations"), "[]"); }

    /// One member of the answer to a request, as JSON.
    static std::string Ask(const std::string& method, const std::string& body,
                           const std::string& url, const std::vector<std::string>& headers,
                           const std::string& member);
    /// Commands to the server, as JSON.
    void Control(const std::string& commands);
    /// What the server tells of itself, as JSON without spaces; "" for what it does not know.
    std::string State(const std::string& member);
    /// path -> SHA-256
    std::map<std::string, std::string> Stored();
    /// What a server holds whose only file is /x.
    static std::map<std::string, std::string> OnlyX(const std::string& bytes) {
        return {{"/x", Sha256(bytes)}};
    }
    std::unique_ptr<vel_rpc::Cloud> Open();

    FdCheck fds_;
    EnvGuard retry_{"BACKUP2_RETRY_MS", "1"};
    Server server_{GetParam().server};
    std::unique_ptr<vel_rpc::Cloud> cloud_ = Open();
};

}  // namespace clouds
