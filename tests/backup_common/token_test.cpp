#include <gtest/gtest.h>

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

TEST(Token, StringFormListsParametersByName) {
    const auto read_back = [](const std::string& from) { return BackupToken(from).Str(); };
    Check(read_back,
          {" -> ", "type=local;path=/b -> path=/b;type=local", ";;type=ftp;; -> type=ftp",
           "a=1=2;a=3 -> a=3", "word=x=y -> word=x=y", "own;type=s3 -> own=;type=s3"});
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
}

TEST(Token, FingerprintDependsOnThePasswordBytesAlone) {
    // printf secret | sha256sum
    const std::string want = "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
    EXPECT_EQ(BackupToken("type=s3;arch_password=c2VjcmV0").Hash(), want);
    EXPECT_EQ(BackupToken("type=ftp;arch_password=c2Vj cmV0").Hash(), want) << "lenient base64";
    EXPECT_EQ(BackupToken("type=s3;arch_password=").Hash(), "");
}

TEST(Token, ComparesItsOwnParametersAndNeverThePassword) {
    const auto equal = [](const char* left, const char* right) {
        return BackupToken(left) == BackupToken(right);
    };
    EXPECT_TRUE(equal("type=ftp;path=/b", "type=ftp;path=/b;port=21"));
    EXPECT_FALSE(equal("type=ftp;path=/b;port=21", "type=ftp;path=/b"));
    EXPECT_TRUE(equal("type=ftp;port=", "type=ftp"));
    EXPECT_TRUE(equal("", "type=ftp"));
    EXPECT_TRUE(equal("type=ftp;arch_password=YQ==", "type=ftp;arch_password=Yg=="));
    EXPECT_FALSE(equal("type=ftp", "type=FTP"));
}

TEST(Factory, RefusesTypesItDoesNotKnow) {
    for (const std::string type : {"", "S3", "Local", "local "}) {
        EXPECT_EQ(Failure([&] { GetStorage(BackupToken("path=/b").SetParam("type", type)); }),
                  "Unknown storage type '" + type + "'");
    }
}

}  // namespace
}  // namespace backup2
