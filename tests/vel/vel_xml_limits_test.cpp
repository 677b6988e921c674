// Documents that want to be more than they look: refused, or read in little memory.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_xml.h"

#include "tests/support/work_dir.h"

namespace {

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define BACKUP2_SANITIZED
#endif
#endif

using vel_xml::Xml;

constexpr int64_t kMiB = 1 << 20;
#if defined(__SANITIZE_ADDRESS__) || defined(BACKUP2_SANITIZED)
constexpr int64_t kMost = 64 * kMiB;  // with the sanitizer's own
#else
constexpr int64_t kMost = 32 * kMiB;
#endif

std::string Repeat(const std::string& text, std::size_t count) {
    std::string out;
    out.reserve(text.size() * count);
    for (std::size_t i = 0; i < count; ++i) out += text;
    return out;
}

std::string Doc(const std::string& content) { return "<doc>" + content + "</doc>"; }

/// A number of /proc/self/status, in bytes.
int64_t Memory(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(key + ":")) return str::Int64(line.substr(key.size() + 1)) * 1024;
    return -1;
}

struct Outcome {
    bool refused = false;
    int64_t grown = 0;  ///< at the highest
};

/// In a process of its own, whose memory nobody used before.
Outcome Read(const std::string& text, Xml (*read)(const std::string&)) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        std::ofstream("/proc/self/clear_refs") << "5" << std::flush;  // the peak begins anew
        const int64_t before = Memory("VmRSS");
        Outcome outcome;
        try {
            read(text);
        } catch (const vel_err::Error& e) {
            outcome.refused = e.type() == "xml" && e.object() == "parse_failed";
        }
        outcome.grown = Memory("VmHWM") - before;
        ::_exit(::write(ends[1], &outcome, sizeof outcome) == sizeof outcome ? 0 : 1);
    }
    ::close(ends[1]);
    Outcome outcome;
    EXPECT_EQ(::read(ends[0], &outcome, sizeof outcome), ssize_t{sizeof outcome});
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return outcome;
}

struct Bomb {
    const char* what;
    std::string text;
    bool refused_anywhere = true;  ///< else only as a stranger's
};

std::vector<Bomb> Bombs() {
    const std::string entity = "<!ENTITY b \"" + std::string(50'000, 'b') + "\">";
    std::string wide = Doc(Repeat("<a/>", 100'000)), utf16 = "\xff\xfe";
    for (const char c : wide) utf16 += std::string(1, c) + '\0';
    return {
        {"entities of entities",
         "<!DOCTYPE d [<!ENTITY a \"xx\"><!ENTITY b \"&a;&a;\">]>" + Doc(Repeat("&b;", 100'000))},
        {"one long entity, often", "<!DOCTYPE d [" + entity + "]>" + Doc(Repeat("&b;", 50'000))},
        {"an external entity",
         "<!DOCTYPE d [<!ENTITY a SYSTEM \"file:///dev/zero\">]>" + Doc("&a;")},
        {"an external document type", "<!DOCTYPE d SYSTEM \"http://127.0.0.1:1/d.dtd\">" + Doc("")},
        {"a long document type",
         "<!DOCTYPE d [" + Repeat("<!ELEMENT a (b)>", 1'000'000) + "]>" + Doc("")},
        {"100000 levels", Repeat("<a>", 100'000) + Repeat("</a>", 100'000)},
        {"a million levels", Repeat("<a>", 1'000'000) + Repeat("</a>", 1'000'000)},
        {"a million levels, not ended", Repeat("<a b='>'>", 1'000'000)},
        {"a million attributes", "<doc" + Repeat(" a=\"\"", 1'000'000) + "/>"},
        {"10001 attributes", "<doc" + Repeat(" a=\"\"", 10'001) + "/>"},
        {"a million comments", Doc(Repeat("<!---->", 1'000'000))},
        {"a million instructions", Doc(Repeat("<?a?>", 1'000'000))},
        {"levels behind comments", Doc(Repeat("<!-- > --><a>", 500'000))},
        {"UTF-16", utf16},
        {"a million elements", Doc(Repeat("<a/>", 1'000'000)), false},
        {"a million texts", Doc(Repeat("<a/>x", 1'000'000)), false},
        {"a long name", "<" + std::string(10 * kMiB, 'a') + "/>", false},
        {"a long attribute", "<doc a=\"" + std::string(10 * kMiB, 'a') + "\"/>", false},
        {"a long text of references", Doc(Repeat("&#65;", 2'000'000)), false},
    };
}

TEST(XmlLimits, BombsAreRefusedBeforeTheyTakeMemory) {
    for (const auto& [what, text, refused_anywhere] : Bombs()) {
        SCOPED_TRACE(what);
        const Outcome strangers = Read(text, Xml::FromStranger);
        EXPECT_TRUE(strangers.refused);
        EXPECT_LT(strangers.grown, kMost);
        if (!refused_anywhere) continue;
        const Outcome anywhere = Read(text, Xml::FromString);
        EXPECT_TRUE(anywhere.refused);
        EXPECT_LT(anywhere.grown, kMost);
    }
}

TEST(XmlLimits, WhateverAStrangersMebibyteHoldsFitsIntoLittleMemory) {
    for (const std::string piece :
         {"<a/>x", "<a></a>", "<a b=''/>", " a=''", "<!---->", "<?a?>", "<a>", "&#65;", "x"}) {
        const std::size_t count = (vel_xml::kStrangersLimit - 20) / piece.size();
        const bool attribute = piece[0] == ' ';
        const std::string text =
            attribute ? "<doc" + Repeat(piece, count) + "/>" : Doc(Repeat(piece, count));
        EXPECT_LT(Read(text, Xml::FromStranger).grown, kMost) << piece;
    }
}

TEST(XmlLimits, AFileThatIsTooBigIsNotRead) {
    const WorkDir work;
    std::ofstream("big.xml") << "<doc/>";
    std::filesystem::resize_file("big.xml", std::uintmax_t{1} << 40);  // one hole
    const auto load = [](const std::string& path) {
        Xml xml;
        xml.LoadFromFile(path);
        return xml;
    };
    const Outcome outcome = Read("big.xml", load);
    EXPECT_TRUE(outcome.refused);
    EXPECT_LT(outcome.grown, kMost);
}

TEST(XmlLimits, ABigHonestFileOfThisMachineLoads) {
    const WorkDir work;
    {
        std::ofstream file("big.xml");
        file << "<doc>";
        for (int i = 0; i < 1'000'000; ++i) file << "<e n=\"" << i << "\">text</e>\n";
        file << "</doc>";
    }
    Xml xml;
    xml.LoadFromFile("big.xml");
    EXPECT_EQ(xml.GetNode("/doc/e[last()]").GetProp("n"), "999999");
}

}  // namespace
