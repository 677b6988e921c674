// The readers of what strangers wrote into archives of other panels.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sbin/foreign_panel/grants.h"
#include "sbin/foreign_panel/sql_dump.h"
#include "sbin/foreign_panel/unpacker.h"
#include "sbin/foreign_panel/values.h"
#include "sbin/foreign_panel/yaml.h"
#include "sbin/foreign_panel/zone_file.h"

namespace foreign_panel {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

TEST(ForeignValues, NamesAndAddressesHaveTheFormThatIsPromised) {
    const std::vector<std::pair<std::string, std::string>> domains = {
        {" Example.COM. ", "example.com"},
        {"*.a.b", "*.a.b"},
        {"_dmarc.a", "_dmarc.a"},
        {"xn--e1a.xn--p1ai", "xn--e1a.xn--p1ai"},
        {"", ""},
        {".", ""},
        {"a..b", ""},
        {"../x", ""},
        {"-a.b", ""},
        {"a b", ""},
        {"a.*", ""},
        {"a\n.b", ""},
        {std::string(64, 'a') + ".b", ""}};
    for (const auto& [text, wanted] : domains) EXPECT_EQ(Domain(text), wanted) << text;
    const std::vector<std::pair<std::string, std::string>> addresses = {
        {" Bob+x@Example.com ", "Bob+x@example.com"},
        {"a@b@c.d", ""},
        {"@a.b", ""},
        {"|cmd@a.b", ""},
        {"-x@a.b", ""},
        {"/dev/x@a.b", ""},
        {"a b@c.d", ""},
        {"a@", ""},
        {"\"a\"@b.c", ""}};
    for (const auto& [text, wanted] : addresses) EXPECT_EQ(Address(text), wanted) << text;
    for (const char* good : {"a", "bob_shop", "u@d.e", "9"}) EXPECT_TRUE(IsName(good)) << good;
    for (const char* bad : {"", "-rf", ".x", "a/b", "a b", "a;b", "a\n", "\xc3\xa4"})
        EXPECT_FALSE(IsName(bad)) << bad;
}

TEST(ForeignValues, PathsStayBelowTheirFolder) {
    const std::vector<std::pair<std::string, std::string>> paths = {{"a/b", "a/b"},
                                                                    {"./a//b/", "a/b"},
                                                                    {".", ""},
                                                                    {"/a", ""},
                                                                    {"a/../b", ""},
                                                                    {"..", ""},
                                                                    {"...", "..."},
                                                                    {"", ""},
                                                                    {std::string("a\0b", 3), ""},
                                                                    {std::string(256, 'a'), ""},
                                                                    {"a\nb", "a\nb"}};
    for (const auto& [text, wanted] : paths) EXPECT_EQ(SafePath(text), wanted) << text;
    EXPECT_EQ(DocumentPath("a\nb"), "");
    EXPECT_EQ(DocumentPath("a\xff"), "");
    struct {
        const char *place, *target, *wanted;
    } const links[] = {{"data/a/l", "../b", "../b"},
                       {"data/a/l", "../../b", ""},
                       {"data/l", "..", ""},
                       {"data/l", "x/../../b", ""},
                       {"data/a/b/l", "x/y/../../../c", "../c"},
                       {"data/l", "a/./b//c", "a/b/c"},
                       {"data/a/l", "x/..", "."},
                       {"data/l", "", ""}};
    for (const auto& one : links)
        EXPECT_EQ(InnerTarget(one.place, one.target), one.wanted) << one.target;
    EXPECT_EQ(RelativeTarget("data/a/b/l", "data/a/c"), "../c");
    EXPECT_EQ(RelativeTarget("data/a/l", "data"), "..");
    EXPECT_EQ(RelativeTarget("data/l", "data/l/x"), "l/x");
}

TEST(ForeignValues, PasswordsAreToldByTheirForm) {
    struct {
        std::string text, form, kept;
        bool locked;
    } const shadow[] = {{"$6$salt$hash", "", "", false},  // too short to be one
                        {"$6$salt$0123456789", "crypt", "$6$salt$0123456789", false},
                        {"!!$1$salt$0123456789", "crypt", "$1$salt$0123456789", true},
                        {"*LOCKED*$1$salt$0123456789", "crypt", "$1$salt$0123456789", true},
                        {"*", "", "", false},
                        {"", "", "", false},
                        {"!!", "", "", true},
                        {"$6$salt$with blank inside", "", "", false}};
    for (const auto& one : shadow) {
        const Password password = FromShadow(one.text);
        EXPECT_EQ(password.form, one.form) << one.text;
        EXPECT_EQ(password.text, one.kept) << one.text;
        EXPECT_EQ(password.locked, one.locked) << one.text;
        EXPECT_EQ(password.problem.empty(), !one.form.empty()) << one.text;
    }
    EXPECT_EQ(FromDatabase("*" + std::string(40, 'A'), "mysql").form, "mysql_native");
    EXPECT_EQ(FromDatabase("*" + std::string(40, 'A'), "postgresql").form, "");
    EXPECT_EQ(FromDatabase("md5" + std::string(32, 'a'), "postgresql").form, "postgresql_md5");
    EXPECT_EQ(FromDatabase("SCRAM-SHA-256$4096:x$y:z", "postgresql").form, "scram");
    for (const char* bad : {"", "5d2e19393cc5ef67", "$A$005$x", "md5xyz"})
        EXPECT_EQ(FromDatabase(bad, "mysql").form, "") << bad;
}

TEST(ForeignZone, RecordsHaveAbsoluteNamesHoweverTheyAreWritten) {
    Texts bad, found;
    const std::string text =
        "$TTL 1h\n@ IN SOA ns admin ( 1 ; one\n 2 3\n4 5 )\n  300 NS ns\nWWW 1d2h IN A 1.2.3.4\n"
        "_sip._tcp SRV 0 5 5060 sip\n*.wild CNAME other.example.\n$ORIGIN sub\nx TXT \"a;b\" "
        "\"c\\\"d\"\n"
        "y IN AAAA ::1 ; end\n$GENERATE 1-9 a A 1\nz IN NOTYPE x\nlonely\nq MX 10\n\n; comment\n";
    for (const DnsRecord& one : ReadZone(text, "e.com", bad))
        found.push_back(one.name + " " + one.ttl + " " + one.type + " " + one.data);
    EXPECT_THAT(
        found,
        ElementsAre("e.com. 3600 SOA ns.e.com. admin.e.com. 1 2 3 4 5", "e.com. 300 NS ns.e.com.",
                    "www.e.com. 93600 A 1.2.3.4", "_sip._tcp.e.com. 3600 SRV 0 5 5060 sip.e.com.",
                    "*.wild.e.com. 3600 CNAME other.example.",
                    "x.sub.e.com. 3600 TXT \"a;b\" \"c\\\"d\"", "y.sub.e.com. 3600 AAAA ::1"));
    EXPECT_THAT(bad, ElementsAre("$GENERATE 1-9 a A 1", "z IN NOTYPE x", "lonely", "q MX 10"));
}

TEST(ForeignGrants, StatementsOfMysqlAreReadAndNoPasswordIsShown) {
    DatabaseUsers users;
    Texts bad;
    ReadMysqlGrants(
        "# comment; with a sign\nGRANT USAGE ON *.* TO 'a''b'@'h' IDENTIFIED BY PASSWORD 'hash1';\n"
        "grant all on `x\\_1`.* to `a'b`@10.0.0.1;\nGRANT SELECT, CREATE VIEW ON `db`.* TO u@'%' "
        "WITH GRANT OPTION;\n"
        "CREATE USER `n`@`h` IDENTIFIED VIA mysql_native_password USING 'hash2';\n"
        "GRANT SELECT ON `db`.`one` TO 'u'@'h';\nGRANT ALL PRIVILEGES ON *.* TO 'u'@'h' IDENTIFIED "
        "BY PASSWORD 'hidden';\n"
        "DROP DATABASE x;\nGRANT SELECT ON `db`.* TO",
        users, bad);
    EXPECT_EQ(users["a'b"].password, "hash1");
    EXPECT_THAT(users["a'b"].hosts, ElementsAre("10.0.0.1", "h"));
    ASSERT_EQ(users["a'b"].grants.size(), 1u);
    EXPECT_EQ(users["a'b"].grants[0].database + ": " + users["a'b"].grants[0].privileges,
              "x_1: ALL PRIVILEGES");
    EXPECT_EQ(users["u"].grants[0].privileges, "SELECT, CREATE VIEW");
    EXPECT_EQ(users["n"].password, "hash2");
    EXPECT_EQ(bad.size(), 4u);
    for (const std::string& statement : bad)
        EXPECT_EQ(statement.find("hidden"), std::string::npos) << statement;
}

TEST(ForeignGrants, StatementsOfPostgresqlAreRead) {
    DatabaseUsers users;
    Texts bad;
    ReadPostgresqlGrants(
        "CREATE ROLE plain; ALTER ROLE \"q\"\"uote\" WITH LOGIN PASSWORD 'it''s' VALID UNTIL "
        "'infinity';\n"
        "GRANT ALL PRIVILEGES ON DATABASE d TO plain; GRANT \"owner\" TO plain; COPY x FROM "
        "PROGRAM 'id';",
        users, bad);
    EXPECT_EQ(users["q\"uote"].password, "it's");
    ASSERT_EQ(users["plain"].grants.size(), 2u);
    EXPECT_EQ(users["plain"].grants[0].database + users["plain"].grants[1].database, "downer");
    EXPECT_THAT(bad, ElementsAre(HasSubstr("COPY")));
}

TEST(ForeignDump, OnlyDefinitionsChangeWhereverThePiecesAreCut) {
    const std::string data =
        "INSERT INTO t VALUES ('" + std::string(100'000, 'x') + " utf8mb4_0900_ai_ci\\n');\n";
    const std::string text =
        "-- Server version\t8.0\n\n/*!50001 SET collation = utf8mb4_0900_ai_ci */;\nCREATE TABLE t "
        "(\n" +
        data +
        "  `c` text COLLATE utf8mb4_de_pb_0900_as_cs,\n) COLLATE=utf8mb4_0900_bin latin1_0900_x;\n"
        "(1,'utf8mb4_0900_ai_ci'),\n-- Dump completed on x";
    const std::string wanted =
        "-- Server version\t8.0\n\n/*!50001 SET collation = utf8mb4_unicode_520_ci */;\nCREATE "
        "TABLE t (\n" +
        data +
        "  `c` text COLLATE utf8mb4_bin,\n) COLLATE=utf8mb4_bin latin1_0900_x;\n"
        "(1,'utf8mb4_0900_ai_ci'),\n-- Dump completed on x";
    for (const std::size_t step : {1UL, 7UL, 4096UL, text.size()}) {
        std::size_t at = 0;
        SqlDump dump([&](std::string_view& bytes, uint64_t& offset) {
            bytes = std::string_view(text).substr(std::min(at, text.size()), step);
            offset = at;
            at += bytes.size();
            return !bytes.empty();
        });
        std::string out;
        std::string_view bytes;
        const auto content = dump.Content();
        for (uint64_t offset = 0; content(bytes, offset); out += bytes)
            EXPECT_EQ(offset, out.size());
        EXPECT_EQ(out, wanted) << step;
        EXPECT_EQ(dump.Collations(), 3u);
        EXPECT_EQ(dump.Version(), "8.0");
        EXPECT_TRUE(dump.Complete());
    }
    EXPECT_EQ(FormOf("PGDMP..."), PostgresqlForm::Custom);
    EXPECT_EQ(FormOf("SELECT 1;"), PostgresqlForm::Text);
}

TEST(ForeignYaml, AliasesShareAndLimitsHold) {
    const auto root = Yaml::Parse("a: &x {b: [1, two]}\nc: *x\nd:\n e: ~\n");
    EXPECT_EQ(root->At("c").At("b").List().at(1)->Text(), "two");
    EXPECT_EQ(root->At("none").Get("e") + root->At("d").Get("e"), "");
    EXPECT_THAT(Yaml::Parse("")->Map(), IsEmpty());
    for (const std::string& bad : Texts{"a: [", "a: *none", "&a [*a]", std::string(40, '['),
                                        "a: 'b", std::string(5 << 20, 'a')})
        EXPECT_THROW(Yaml::Parse(bad), std::runtime_error) << bad.substr(0, 40);
}

}  // namespace
}  // namespace foreign_panel
