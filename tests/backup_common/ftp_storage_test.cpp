// What only the FTP storage does; the rest is in tests/contract.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vel/str.h"

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"
#include "tests/support/server.h"

namespace backup2 {
namespace {

TEST(FtpStorage, FullServerIsAnErrorAndRemovalIsNone) {
    Server server("pureftpd", {{"FTP_QUOTA_MB", "1"}});
    const TempDir dir;
    WriteFile(dir / "in", RandomBytes(2 << 20, 1));
    const std::string address = ";url=" + server["host"] + ":" + server["port"];
    const std::string login =
        ";username=" + server["user"] + ";password=" + str::base64::Encode(server["password"]);
    // The port may stand in the address; only "active" is active.
    const auto storage = GetStorage(BackupToken("type=ftp;mode=Active;path=/b" + address + login));
    storage->MkDir("u/d");
    // Where the server does not read to the end its reply may be lost with the connection.
    EXPECT_THAT(Failure([&] { storage->Put("u/d/f", dir / "in"); }),
                testing::AnyOf("ftp_put_failed", testing::StartsWith("network ftp://")));
    std::list<std::string> names;
    storage->List(names, "u/d");
    EXPECT_TRUE(names.empty()) << "nothing half is left";
    storage->Delete("u/d/missing");
    storage->RmDir("u/missing");
    EXPECT_TRUE(fs::exists(server["root"] + "/b/u/d")) << "the parent holds another folder";
    const auto stranger = GetStorage(BackupToken("type=ftp;path=/b;username=x" + address));
    EXPECT_EQ(Failure([&] { stranger->List(names, "u"); }),
              "unauthorized ftp://" + server["host"] + ":" + server["port"]);
    stranger->Delete("u/d");
    stranger->RmDir("u/d");
    EXPECT_TRUE(fs::exists(server["root"] + "/b/u/d"));
}

}  // namespace
}  // namespace backup2
