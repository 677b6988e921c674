#include <gtest/gtest.h>

#include "vel/vel_env.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

TEST(Limits, ToolGetsWhatIsSetAndTheToken) {
    const WorkDir work;
    const EnvGuard token("BACKUP_TOKEN", "of somebody else");
    const FdCheck descriptors;
    const ChildCheck children;
    // More output than a pipe holds, and an end that is later than the output's.
    MakeTool("backup2_cp",
             "printf '%s|' \"$@\" >argv; printf '%s' \"$BACKUP_TOKEN\" >>argv\n"
             "head -c 3000000 /dev/zero; exec >&-; sleep 0.2; exit 3");
    const struct {
        std::string attributes, text, arguments;
    } cases[] = {
        {"local_dir='/var/backups' count_limit='5'", "type=local",
         "--path|/var/backups|--date|2024-01-31|--count-limit|5|type=local"},
        {"local_dir='/b c'", "", "--path|/b c|--date|2024-01-31|"},
        {"local_dir='' user='bob' size_limit='10G' count_limit='0'", "t",
         "--path||--date|2024-01-31|--size-limit|10G|--count-limit|0|--storage|bob|t"},
    };
    for (const auto& c : cases) {
        const auto element = "<storage " + c.attributes + ">" + c.text + "</storage>";
        auto limits = BackupSizeControl(vel_xml::Xml::FromString(element).GetRoot(), "2024-01-31");
        EXPECT_EQ(ReadFile("argv"), "--server|" + c.arguments);
        EXPECT_EQ(limits.Result(), 3);
        EXPECT_EQ(vel_env::GetEnv("BACKUP_TOKEN"), c.text);
    }
    BackupSizeControl(vel_xml::Xml::FromString("<storage/>").GetRoot(),
                      "custom");  // not waited for
}

TEST(EncryptedSize, IsOneMoreThanAMultipleOf32) {
    Check(EncryptedSize, {"0 -> -31", " -> -31", "1 -> 1", "32 -> 1", "33 -> 33", "64 -> 33",
                          "65 -> 65", "100 -> 97", "1024 -> 993", "123 abcd -> 97", "-5 -> -31",
                          "-100 -> -95", "x -> -31", "9223372036854775807 -> 9223372036854775777",
                          "99999999999999999999 -> 9223372036854775777",
                          "-99999999999999999999 -> -9223372036854775807"});
}

}  // namespace
}  // namespace backup2
