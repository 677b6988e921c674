#include <gtest/gtest.h>

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

TEST(Token, StringFormListsParametersByName) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"type=local;path=/b", "path=/b;type=local"},
        {";;type=ftp;;", "type=ftp"},
        {"a=1=2;a=3", "a=3"},
        {"word=x=y", "word=x=y"},
        {"own;type=s3", "own=;type=s3"}};
    for (const auto& [from, to] : cases) {
        EXPECT_EQ(BackupToken(from).Str(), to) << from;
        EXPECT_EQ(BackupToken(BackupToken(from).Str()).Str(), to) << "read back: " << from;
    }
}

TEST(Token, EmptyNamesAndValuesChangeNothing) {
    BackupToken token("=x;type=node;path=/b");
    token.SetParam("path", "").SetParam("ip", "10.0.0.1").SetParam("port", "");
    token.DropParam("");
    EXPECT_EQ(token.Str(), "=x;ip=10.0.0.1;path=/b;type=node");
    token.Init();  // the string it was made from does not know the changes
    EXPECT_EQ(token.Str(), "=x;path=/b;type=node");
    token.DropParam("type");
    EXPECT_FALSE(token);
    token.Reset("type=local;arch_password=YQ==");
    EXPECT_TRUE(token && token.IsLocal() && token.IsEncrypted());
    token.Reset("type=Local");
    EXPECT_FALSE(token.IsLocal() || token.IsEncrypted());
    token.Erase();
    token.Init();
    EXPECT_EQ(token.Str(), "");
}

TEST(Token, FingerprintDependsOnThePasswordBytesAlone) {
    // printf secret | sha256sum
    const std::string want = "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
    EXPECT_EQ(BackupToken("type=s3;arch_password=c2VjcmV0").Hash(), want);
    EXPECT_EQ(BackupToken("type=ftp;arch_password=c2Vj cmV0").Hash(), want) << "lenient base64";
    EXPECT_EQ(BackupToken("type=s3;arch_password=").Hash(), "");
}

TEST(Token, ComparesItsOwnParametersAndNeverThePassword) {
    const struct {
        const char *left, *right;
        bool equal;
    } cases[] = {{"type=ftp;path=/b", "type=ftp;path=/b;port=21", true},
                 {"type=ftp;path=/b;port=21", "type=ftp;path=/b", false},
                 {"type=ftp;port=", "type=ftp", true},
                 {"", "type=ftp", true},
                 {"type=ftp;arch_password=YQ==", "type=ftp;arch_password=Yg==", true},
                 {"type=ftp", "type=FTP", false}};
    for (const auto& c : cases) {
        EXPECT_EQ(BackupToken(c.left) == BackupToken(c.right), c.equal) << c.left << " " << c.right;
    }
}

TEST(Factory, RefusesTypesItDoesNotKnow) {
    for (const std::string type : {"", "S3", "Local", "local "}) {
        EXPECT_EQ(Failure([&] { GetStorage(BackupToken("path=/b").SetParam("type", type)); }),
                  "Unknown storage type '" + type + "'");
    }
    EXPECT_TRUE(IsS3Type("s3") && IsS3Type("amazon") && !IsS3Type("S3") && !IsS3Type(""));
}

}  // namespace
}  // namespace backup2
