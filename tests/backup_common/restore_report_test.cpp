#include <regex>

#include <gtest/gtest.h>

#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

const char kFile[] = "var/backup2_restore_report.r1.xml";

class Reports : public testing::Test {
protected:
    static vel_xml::Xml Load() {
        vel_xml::Xml xml;
        xml.LoadFromFile(kFile);
        return xml;
    }
    /// "type name [code]" of each event, a line each, behind "badchars" where it is marked.
    static std::string Events() {
        const vel_xml::Xml xml = Load();
        std::string text = xml.GetRoot().GetProp("badchars") == "yes" ? "badchars\n" : "";
        for (const auto& elem : xml.GetNodes("/doc/elem")) {
            EXPECT_EQ(elem.GetProp("owner"), "bob");
            EXPECT_TRUE(std::regex_match(elem.GetProp("date"),
                                         std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d")));
            text += elem.GetProp("type") + " " + elem.GetProp("name");
            if (const std::string code = elem.GetProp("code"); !code.empty())
                text += " [" + code + "]";
            text += "\n";
        }
        return text;
    }
    static std::string After(const std::string& output, int code) {
        fs::remove(kFile);
        SaveFileReport("bob", "r1", output, code);
        return Events();
    }
    const WorkDir work_;
};

TEST_F(Reports, AStepsOutputBecomesEvents) {
    const struct {
        std::string output;
        int code;
        const char* want;
    } cases[] = {
        {"", 0, ""},
        {"data/a/b.txt\ndata/c\nplain", 0, "file /b.txt\nfile /c\nfile plain\n"},
        {"data/a\nscp failed\ndata/mod-tmp\nFail to decode\nstd::exception\n", 0, "file /a\n"},
        {"scp failed \ndata/mod-tmp/x", 0, "file scp failed \nfile /x\n"},
        {"Database shop: no server\nmore", 0, "db Database shop: no server\nmore [0]\n"},
        {"no Database", 5, "db no Database [5]\n"},
        {"scp failed\ndata/a", 2, "get_data scp failed\ndata/a [2]\n"},
        {"", 137, "get_data  [137]\n"},
        {"  two blanks  ", 1, "get_data   two blanks   [1]\n"},
    };
    for (const auto& [output, code, want] : cases) EXPECT_EQ(After(output, code), want) << output;
}

TEST_F(Reports, NoNameLosesTheReport) {
    const struct {
        std::string output;
        const char* want;
    } cases[] = {
        {"data/a & b", "badchars\nfile /a & b\n"},
        {"data/a &amp; b", "badchars\nfile /a & b\n"},
        {"data/a &amp; b & c", "badchars\nfile /a &amp; b & c\n"},
        {"data/a &#x26 b", "badchars\nfile /a &#x26 b\n"},
        {"data/a < b", "badchars\nfile /a < b\n"},
        {"data/<b>bold<\tb>", "badchars\nfile /<b>bold<\tb>\n"},
        {"data/</doc><doc>x", "badchars\nfile /doc><doc>x\n"},
        {"data/a>b ]]>", "file /a>b ]]>\n"},
        {"data/\xc3\xa4", "file /\xc3\xa4\n"},
        {"data/\xe2\x82\xac", "badchars\nfile /?\n"},
        {"data/\xff\xc3", "badchars\nfile /??\n"},
        {"data/\x01\x1b[31m", "badchars\nfile /??[31m\n"},
        {std::string("data/\0x", 7), "badchars\nfile /?x\n"},
        {"data/a\r\ndata/b", "badchars\nfile /a\nfile /b\n"},
    };
    for (const auto& [output, want] : cases) EXPECT_EQ(After(output, 0), want) << output;
}

TEST_F(Reports, APanelsErrorIsCopiedWhole) {
    const auto answer = vel_xml::Xml::FromString(
        "<doc><x/><error type='missed' object='user'><msg>No <b>user</b></msg></error></doc>");
    SaveDataReport("Fetch", "bob", "r1", "get", vel_xml::Xml::FromString("<doc><ok/></doc>"));
    EXPECT_FALSE(fs::exists(kFile));
    SaveDataReport("Fetch", "bob", "r1", "get", answer);
    SaveDataReport("Fetch", "bob", "r1", "get", answer);
    EXPECT_EQ(Events(), "get Fetch\nget Fetch\n");
    const vel_xml::XmlNode error = Load().GetNode("/doc/elem[2]/error[@type='missed']");
    EXPECT_EQ(error.GetProp("object") + " " + error.Str(), "user No user");
    EXPECT_EQ(answer.GetNode("/doc/error/msg").Str(), "No user");
}

TEST_F(Reports, AViewedReportBeginsAfreshAndAFinalizedOneGoesOn) {
    FinalizeReport("r1", "all");
    EXPECT_FALSE(fs::exists(kFile));
    SaveFileReport("bob", "r1", "data/a", 0);
    FinalizeReport("r1", "all");
    SaveFileReport("bob", "r1", "data/b", 0);
    EXPECT_EQ(Events(), "file /a\nfile /b\n");
    vel_xml::Xml xml = Load();
    xml.GetRoot().SetProp("viewed", "yes");
    xml.Save(kFile, false);
    FinalizeReport("r1", "files");
    EXPECT_EQ(Events(), "file /a\nfile /b\n");
    SaveFileReport("bob", "r1", "data/c", 0);
    EXPECT_EQ(Events(), "file /c\n");
    const vel_xml::XmlNode root = Load().GetRoot();
    EXPECT_EQ(root.GetProp("viewed") + root.GetProp("finalized") + root.GetProp("type"),
              "yesfiles");
}

TEST_F(Reports, AFileThatIsNoReportStaysAsItIs) {
    MakeFile(kFile, "<doc><elem");
    const vel_xml::Xml answer = vel_xml::Xml::FromString("<doc><error/></doc>");
    EXPECT_EQ(Failure([] { SaveFileReport("bob", "r1", "x", 0); }), "xml parse_failed");
    EXPECT_EQ(Failure([] { FinalizeReport("r1", "all"); }), "xml parse_failed");
    EXPECT_EQ(Failure([&] { SaveDataReport("n", "bob", "r1", "t", answer); }), "xml parse_failed");
    EXPECT_EQ(ReadFile(kFile), "<doc><elem");
}

}  // namespace
}  // namespace backup2
