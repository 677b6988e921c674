#include <gtest/gtest.h>

#include "vel/vel_env.h"

#include "backup_common/backup2_convert.h"

#include "tests/support/log_capture.h"

namespace backup2 {
namespace {

using vel_xml::Xml;

constexpr unsigned kDebian = 0x20201, kCloudLinux = 0x20104;

/// The system of the host while it lives.
struct Host {
    explicit Host(unsigned os) { vel_env::SetOsForTests(os, "1"); }
    ~Host() { vel_env::SetOsForTests(kDebian, "12"); }
};

/// What a document becomes, without its declaration.
std::string Body(const Xml& xml) {
    const std::string text = xml.Str();
    return text.substr(text.find("?>") + 2);
}

/// The same document as the library writes it.
std::string Normal(const std::string& text) { return Body(Xml::FromString(text)); }

std::string Converted(const std::string& text, const std::string& kind) {
    const Xml xml = Xml::FromString(text);
    GetConverter(xml, kind)->Convert();
    return Body(xml);
}

// ---- Choice -------------------------------------------------------------------------------------

std::string Data(const std::string& info, const std::string& oscloudlinux = "",
                 const std::string& more = "") {
    const std::string param =
        oscloudlinux.empty() ? "" : "<param name='oscloudlinux'>" + oscloudlinux + "</param>";
    return "<doc>" + info + more + "<elem name='user.edit' elid='bob'>" + param + "</elem></doc>";
}

TEST(Convert, TheConversionFollowsFromBothEditions) {
    const std::string three = "<info dist='3'/>", external = "<external/>";
    const struct {
        unsigned os;
        std::string host, document, want;
    } cases[] = {
        {kDebian, "3", Data("<info dist='1'/>"), "tavo2merun"},
        {kDebian, "3", Data("<info/>"), "tavo2merun"},
        {kDebian, "1", Data(three), "merun2tavo"},
        {kDebian, "1", Data("<info dist='2'/>"), "merun2tavo"},
        {kDebian, "3", Data("<info dist='2'/>"), ""},
        {kDebian, "10", Data(three), "merun2tavo"},
        {kDebian, "", Data("<info/>"), ""},
        {kDebian, "3", Data(""), ""},
        {kDebian, "3", Data("<elem><info dist='1'/></elem>"), ""},
        {kDebian, "3", "<data><info dist='1'/></data>", ""},
        {kDebian, "3", Data(three, "yes"), "cloudlinux2merun"},
        {kDebian, "3", Data("<info dist='2'/>", "yes"), "cloudlinux2merun"},
        {kDebian, "3", Data(three, "no"), ""},
        {kDebian, "3", Data(three, "yes "), ""},
        {kDebian, "1", Data("<info dist='1'/>", "yes"), ""},
        {kCloudLinux, "3", Data(three, "yes"), ""},
        {kCloudLinux, "3", Data("<info dist='1'/>", "yes"), "tavo2merun"},
        {kDebian, "3", Data(three, "yes", external), "external"},
        {kDebian, "3", Data("<info dist='1'/>", "", external), "tavo2merun"},
        {kDebian, "1", Data(three, "yes", external), "merun2tavo"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host + " " + c.document);
        const Host host(c.os);
        const LogCapture log;
        const Xml xml = Xml::FromString(c.document);
        Convert(xml, c.host);
        EXPECT_EQ(log.Has(6, "Convert: " + c.want), !c.want.empty());
        EXPECT_EQ(log.Events().size(), c.want.empty() ? 0U : 1U);
        const bool gone = Body(xml).find("oscloudlinux") == std::string::npos;
        const bool had = c.document.find("oscloudlinux") != std::string::npos;
        EXPECT_EQ(had && gone, c.want == "cloudlinux2merun");
    }
}

// ---- Elements -----------------------------------------------------------------------------------

const std::string kBob = R"(<elem name="user.edit" elid="bob"/>)";

std::string Database(const std::string& elid, const std::string& children) {
    return R"(<elem name="db"><elem elid=")" + elid + "\">" + children + "</elem></elem>";
}

std::string Param(const std::string& name, const std::string& text) {
    return "<param name=\"" + name + "\">" + text + "</param>";
}

TEST(Convert, DatabasesChangeTheirNameAndType) {
    const struct {
        std::string kind, user, elid, children, want_elid, want_children;
    } cases[] = {
        {"tavo2merun", kBob, "shop-&gt;MySQL", Param("server", "MySQL"), "shop-&gt;mysql-&gt;bob",
         Param("type", "mysql")},
        {"tavo2merun", "", "shop-&gt;MySQL", Param("type", "MySQL"), "shop-&gt;mysql",
         Param("type", "MySQL")},
        {"tavo2merun", kBob, "a-&gt;b-&gt;PostgreSQL", "", "a-&gt;b-&gt;postgresql-&gt;bob", ""},
        {"tavo2merun", kBob, "SHOP", "", "-&gt;shop-&gt;bob", ""},
        {"merun2tavo", kBob, "shop-&gt;postgresql-&gt;bob",
         Param("type", "postgresql") + Param("size", "mysql"), "shop-&gt;PostgreSQL",
         Param("server", "PostgreSQL") + Param("size", "mysql")},
        {"merun2tavo", kBob, "shop-&gt;other-&gt;bob",
         Param("type", "Other") + Param("server", "mysql"), "shop-&gt;other",
         Param("server", "Other") + Param("server", "mysql")},
        {"merun2tavo", kBob, "shop-&gt;mysql", Param("type", "mysql"), "-&gt;shop",
         Param("server", "MySQL")},
        {"merun2tavo", kBob, "shop", "", "-&gt;", ""},
        {"cloudlinux2merun", kBob, "shop-&gt;MySQL", Param("server", "MySQL"), "shop-&gt;MySQL",
         Param("server", "MySQL")},
        {"external", kBob, "shop-&gt;MySQL", Param("type", "mysql"), "shop-&gt;MySQL",
         Param("type", "mysql")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind + " " + c.elid);
        EXPECT_EQ(Converted("<doc>" + Database(c.elid, c.children) + c.user + "</doc>", c.kind),
                  Normal("<doc>" + Database(c.want_elid, c.want_children) + c.user + "</doc>"));
    }
}

TEST(Convert, TheParentDecidesWhatAnElementIs) {
    const std::string outside =
        R"(<elem name="db" elid="x-&gt;MySQL"><param name="server">MySQL</param></elem>)";
    EXPECT_EQ(Converted("<doc>" + outside + kBob + "</doc>", "tavo2merun"),
              Normal("<doc>" + outside + kBob + "</doc>"));
    // An element of the user among databases is a database.
    EXPECT_EQ(Converted(R"(<doc name="db"><elem name="user.edit" elid="bob-&gt;MySQL"/></doc>)",
                        "tavo2merun"),
              R"(<doc name="db"><elem name="user.edit" elid="bob->mysql->bob->MySQL"/></doc>)");
}

TEST(Convert, ARoundTripGivesDatabasesBack) {
    std::string databases;
    for (const std::string type : {"MySQL", "PostgreSQL"})
        databases += Database("shop-&gt;" + type, Param("server", type) + Param("owner", "x"));
    const std::string text = "<doc>" + kBob + databases + "</doc>";
    const Xml xml = Xml::FromString(text);
    EXPECT_EQ(Body(Tavo2MerunConverter(xml).Convert()).find("MySQL"), std::string::npos);
    EXPECT_EQ(Body(Merun2TavoConverter(xml).Convert()), Normal(text));
}

TEST(Convert, EachElementOfTheUserTakesOneMarkOfCloudLinuxAway) {
    const auto user = [](const std::string& params) {
        return "<elem name=\"user.edit\">" + params + "</elem>";
    };
    const std::string mark = Param("oscloudlinux", "yes"), name = Param("name", "bob");
    const std::string nested = Param("oscloudlinux", "yes" + user(""));
    const struct {
        std::string before, after;
    } cases[] = {
        {user(name + mark), user(name)},
        {user(mark + mark) + user(name), user("") + user(name)},
        {user(mark + mark), "<elem name=\"user.edit\">" + mark + "</elem>"},
        {user(nested + mark), user("")},  // what stands in the mark counts, and goes with it
        {user("<elem name=\"x\">" + mark + "</elem>"),
         user("<elem name=\"x\">" + mark + "</elem>")},
        {"<elem name=\"x\">" + mark + "</elem>", "<elem name=\"x\">" + mark + "</elem>"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Converted("<doc>" + c.before + "</doc>", "cloudlinux2merun"),
                  Normal("<doc>" + c.after + "</doc>"))
            << c.before;
    }
}

TEST(Convert, ElementsWithinReplacedTextsGoWithThem) {
    const std::string inner = R"(MySQL<elem elid="y-&gt;MySQL"><elem/></elem>)";
    EXPECT_EQ(Converted("<doc>" +
                            Database("x-&gt;MySQL", "<elem name=\"server\">" + inner + "</elem>" +
                                                        Param("server", "A<b>B</b>")) +
                            kBob + "</doc>",
                        "tavo2merun"),
              Normal("<doc>" +
                     Database("x-&gt;mysql-&gt;bob",
                              "<elem name=\"type\">mysql</elem>" + Param("type", "ab")) +
                     kBob + "</doc>"));
}

TEST(Convert, OneElementConvertsByItself) {
    const Xml xml = Xml::FromString("<doc>" + Database("x-&gt;MySQL", "") +
                                    "<elem name='user.edit' elid='bob'>" +
                                    Param("oscloudlinux", "yes") + "</elem></doc>");
    GetElemConv(xml, xml.GetNode("/doc/elem[1]"), "tavo2merun")->ConvertType();
    EXPECT_EQ(xml.GetNode("/doc/elem/elem").GetProp("elid"), "x->MySQL");
    GetElemConv(xml, xml.GetNode("/doc/elem/elem"), "tavo2merun")->ConvertType();
    EXPECT_EQ(xml.GetNode("/doc/elem/elem").GetProp("elid"), "x->mysql->bob");
    const auto user = GetElemConv(xml, xml.GetNode("/doc/elem[2]"), "cloudlinux2merun");
    for (int i = 0; i < 2; ++i) user->ConvertType();  // the second finds nothing
    EXPECT_FALSE(xml.GetNode("/doc/elem/param"));
}

TEST(Convert, DocumentsOfManyUsersAreNoneTooMany) {
    std::string text = "<doc name='db'>";
    for (int i = 0; i < 200'000; ++i) text += "<elem elid='a-&gt;MySQL'/>";
    text += "<elem name='user.edit' elid='bob'/></doc>";
    const Xml xml = Xml::FromString(text);  // with a search for each this would take hours
    GetConverter(xml, "tavo2merun")->Convert();
    EXPECT_EQ(xml.GetNode("/doc/elem[200000]").GetProp("elid"), "a->mysql->bob");
}

}  // namespace
}  // namespace backup2
