#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_env.h"

#include "backup_common/backup2_misc.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

std::string EveryByte() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    return bytes;
}

TEST(Encodings, ListingNamesEscapeSixBytes) {
    Check(EncodeFileName, {" -> ", "a\\b -> a\\\\b", "a\\ -> a\\\\", "\\t -> \\\\t",
                           "\t\n\f\v\r -> \\t\\n\\f\\v\\r", "a \x01\x7f\xff -> a \x01\x7f\xff"});
    EXPECT_EQ(DecodeFileName(EncodeFileName(EveryByte())), EveryByte());
    const auto failure = [](const std::string& name) {
        return Failure([&] { DecodeFileName(name); });
    };
    Check(failure, {"x\\ -> Bad encoded filename 'x\\'", "a\\qb -> Bad encoded filename 'a\\qb'",
                    "\\t\\x -> Bad encoded filename '\t\\x'"});  // as far as decoded
}

TEST(Encodings, CodeListsKeepEveryByteOfNamesWithControlBytes) {
    const auto codes_and_printable = [](const std::string& name) {
        const auto& [codes, printable] = EncodeBadFileName(name);
        return codes + " " + printable;
    };
    Check(codes_and_printable, {" ->  ", "abc ->  abc", "\xD0\xB0\x7f ->  \xD0\xB0\x7f",
                                "ab\x01 -> 97||98||1 ab?", "\x01 -> 1 ?"});
    EXPECT_EQ(DecodeBadFileName(EncodeBadFileName(EveryByte()).first), EveryByte());
    EXPECT_EQ(DecodeBadFileName("1"), "1") << "one code cannot be told from a name";
    EXPECT_EQ(DecodeBadFileName("104||105"), "hi");
    EXPECT_EQ(DecodeBadFileName("360||x||105||"), std::string("h\0i", 3));
}

TEST(Encodings, ReportTextLosesWhatXmlOrItsReadersCannotHold) {
    EXPECT_EQ(ReplaceBadChars(std::string("\x01\x00\x1f", 3)), "???");
    Check(ReplaceBadChars,
          {"a\t\r\n\x7f -> a\t\r\n\x7f", "\xD0\xB0\xC3\xA9\xBF -> \xD0\xB0\xC3\xA9\xBF",
           "x\xE2\x82\xACy -> x?y", "x\xF0\x9F\x98\x80y -> x?y", "x\xF8\x88\x80\x80\x80y -> x?y",
           "x\xFC\x84\x80\x80\x80\x80y -> x?y", "\xE2xyz -> ?z", "a\xF0\x9F -> a?",
           "\xFE\xFF -> \xFE\xFF"});
}

TEST(Encodings, TreeValuesRoundTrip) {
    EXPECT_EQ(TreeEncode(""), "");
    EXPECT_EQ(TreeEncode("az"), "t_617a");
    EXPECT_EQ(TreeDecode(TreeEncode(EveryByte())), EveryByte());
    Check(TreeDecode, {" -> ", "t_ -> ", "t_6A6a -> jj", "t_zz -> t_zz", "t_61  -> t_61 ",
                       "61 -> 61", "T_61 -> T_61", "t_616 -> a"});
}

TEST(Encodings, KeysGetTheLineBreakOfTheSystem) {
    EXPECT_EQ(EscapeKey("a\r\nb\nc d\te\r"), "a#rnb#rnc#wsd\te\r");
    const struct {
        unsigned os;
        const char *version, *line_break;
    } cases[] = {{0x20201, "10", "\n"},    {0x20201, "12", "\r\n"}, {0x20202, "20.04", "\n"},
                 {0x20202, "10", "\r\n"},  {0x20101, "8.9", "\n"},  {0x20103, "8", "\n"},
                 {0x20104, "9.1", "\r\n"}, {0x20000, "8", "\r\n"},  {0x20201, "8", "\r\n"}};
    const unsigned os = vel_env::GetOsType();
    const std::string version = vel_env::GetOsVersion();
    for (const auto& c : cases) {
        vel_env::SetOsForTests(c.os, c.version);
        EXPECT_EQ(UnescapeKey("a#rnb#wsc"), std::string("a") + c.line_break + "b c")
            << std::hex << c.os << " " << c.version;
    }
    vel_env::SetOsForTests(os, version);
}

}  // namespace
}  // namespace backup2
