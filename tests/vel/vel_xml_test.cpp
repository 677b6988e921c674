#include "vel/vel_xml.h"

#include <sstream>

#include <gtest/gtest.h>

#include "vel/vel_err.h"

#include "tests/support/work_dir.h"
#include "tests/vel/fixtures.h"

namespace {

using vel_xml::Xml;
using vel_xml::XmlNode;

const std::string kHead = R"(<?xml version="1.0" encoding="UTF-8"?>)";

std::string Nested(int levels) {
    std::string text;
    for (int i = 0; i < levels; ++i) text += "<a>";
    for (int i = 0; i < levels; ++i) text += "</a>";
    return text;
}

TEST(Xml, WhatIsNotOnePlainDocumentIsRefused) {
    const std::pair<const char*, std::string> cases[] = {
        {"nothing", ""},
        {"no XML", "502 Bad Gateway"},
        {"cut", "<doc><a>"},
        {"crossed", "<a><b></a></b>"},
        {"two roots", "<a/><b/>"},
        {"text behind", "<a/>x"},
        {"NUL", std::string("<a/>\0<b/>", 9)},
        {"other encoding", "<?xml version='1.0' encoding='KOI8-R'?><a/>"},
        {"UTF-16", std::string("\xff\xfe<\0a\0/\0>\0", 10)},
        {"broken name", "<a\xff/>"},
        {"document type", "<!DOCTYPE a><a/>"},
        {"external entity", R"(<!DOCTYPE a [<!ENTITY x SYSTEM "file:///etc/passwd">]><a>&x;</a>)"},
        {"entity bomb", R"(<!DOCTYPE a [<!ENTITY b "12"><!ENTITY c "&b;&b;">]><a>&c;</a>)"},
        {"257 levels", Nested(257)},
        {"a million levels", Nested(1'000'000)},
    };
    for (const auto& [what, text] : cases) {
        Xml xml = Xml::FromString("<keep/>");
        std::istringstream in(text);
        EXPECT_TRUE(Failure([&] { xml.Load(in); }).starts_with("xml|parse_failed|")) << what;
        EXPECT_EQ(xml.Str(), kHead + "<keep/>") << what;
    }
    EXPECT_EQ(Xml::FromString(Nested(256)).GetRoot().Name(), "a");
}

TEST(Xml, TextsOfEveryByteSurviveAndTheImpossibleBecomesAQuestionMark) {
    Xml xml;
    std::string text, want;
    for (int i = 0; i < 128; ++i) {
        const char c = static_cast<char>(i);
        text += c;
        want += i >= 32 || c == '\t' || c == '\n' || c == '\r' ? c : '?';
    }
    xml.GetRoot().AppendChild("text", text).SetProp("prop", text);
    const Xml back = Xml::FromString(xml.Str());
    EXPECT_EQ(back.GetNode("/doc/text").Str(), want);
    EXPECT_EQ(back.GetNode("/doc/text").GetProp("prop"), want);
}

TEST(Xml, BrokenUtf8BecomesQuestionMarksAndGoodUtf8Stays) {
    const std::pair<std::string, std::string> cases[] = {
        {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"a\xff.", "a?."},
        {"\xc3", "?"},
        {"\xe2\x82", "??"},
        {"\xc0\xaf", "??"},
        {"\xed\xa0\x80", "???"},
        {"\xef\xbf\xbf", "???"},
        {"\xf4\x90\x80\x80", "????"},
        {"\xc3\xa4\x80\xc3\xa4", "\xc3\xa4?\xc3\xa4"},
    };
    for (const auto& [text, want] : cases) {
        const Xml parsed = Xml::FromString("<doc a='" + text + "'>" + text + "</doc>");
        EXPECT_EQ(parsed.GetRoot().Str(), want);
        EXPECT_EQ(parsed.GetRoot().GetProp("a"), want);
        Xml made;
        made.GetRoot().SetContent(text);
        EXPECT_EQ(Xml::FromString(made.Str()).GetRoot().Str(), want);
    }
    EXPECT_EQ(Xml::FromString("<a>&#1;&#xFFFF;&#x20AC;</a>").GetRoot().Str(), "????\xe2\x82\xac");
}

TEST(Xml, AByteThatXmlCannotHoldIsFoundWhereverItStands) {
    for (std::size_t i = 0; i < 200; ++i) {
        std::string text(200, 'x'), want = text;
        text[i] = i % 2 == 0 ? '\x1f' : '\xff';
        want[i] = '?';
        EXPECT_EQ(Xml::FromString("<a>" + text + "</a>").GetRoot().Str(), want) << i;
    }
}

TEST(Xml, JoinedTextsReadChangeAndSaveAsOthersDo) {
    const WorkDir work;
    for (const std::string text :
         {"<r>a<i>b<j>c</j>d</i>e<k/></r>", "<r>\n <i>  <j>x</j></i>\n</r>", "<r/>",
          "<r><![CDATA[a]]>b<i><!--c-->d</i></r>", "<r>a\xff&#1;&#13;<i>&lt;\x01</i></r>",
          "<r>&#0;a<i/></r>", "<r><i a='b'>c</i><!--d-->e<?f g?></r>"}) {
        SCOPED_TRACE(text);
        WriteFile("file", text);
        Xml apart, joined;
        apart.LoadFromFile("file");
        joined.LoadFromFile("file", vel_xml::Texts::Joined);
        EXPECT_EQ(joined.GetRoot().Str(), apart.GetRoot().Str());
        for (const std::string content : {"", "text", "longer than the text before"}) {
            for (const Xml* xml : {&apart, &joined}) {
                xml->GetRoot().AppendChild(xml->GetRoot()).AppendChild("new", content);
                xml->GetNode("/r/i").SetContent(content);
            }
            EXPECT_EQ(joined.Str(), apart.Str());
            EXPECT_EQ(joined.Str(true), apart.Str(true));
            EXPECT_EQ(joined.GetRoot().Str(), apart.GetRoot().Str());
        }
    }
}

TEST(Xml, BlanksAndMarkupInTextsStayAsTheyWere) {
    const Xml xml = Xml::FromString("<a>  <b> x </b><![CDATA[<&]]>\n<!-- no --><c>&lt;</c></a>");
    EXPECT_EQ(xml.GetRoot().Str(), "   x <&\n<");
    EXPECT_EQ(Xml::FromString(xml.Str()).GetRoot().Str(), "   x <&\n<");
}

TEST(Xml, XPathFindsElementsInDocumentOrder) {
    Xml xml = Xml::FromString("<r><i n='1'><i n='2'/></i><j/><i n='3'>t</i></r>");
    std::string order;
    for (const XmlNode& node : xml.GetNodes("//i[@n='3'] | //i")) order += node.GetProp("n");
    EXPECT_EQ(order, "123");
    EXPECT_TRUE(xml.GetNodes("//@n").empty());
    EXPECT_FALSE(xml.GetNode("/r/none"));
    for (const char* bad : {"", "//[", "count(//i)", "nonsense(", "$x"}) {
        EXPECT_TRUE(Failure([&] { xml.GetNodes(bad); }).starts_with("xml|bad_xpath|")) << bad;
    }
    xml.RemoveNodes("//i");  // one hit lies within another
    EXPECT_EQ(xml.Str(), kHead + "<r><j/></r>");
}

TEST(Xml, NamesThatWouldBreakTheDocumentAreRefused) {
    Xml xml;
    for (const std::string& bad :
         {std::string(), std::string("a b"), std::string("1"), std::string("a>"),
          std::string("a\0b", 3), std::string("\xff")}) {
        EXPECT_THROW(xml.GetRoot().AppendChild(bad), vel_err::Error) << bad;
        EXPECT_THROW(xml.GetRoot().SetProp(bad, "v"), vel_err::Error) << bad;
        EXPECT_THROW(xml.GetRoot().SetName(bad), vel_err::Error) << bad;
    }
    EXPECT_EQ(xml.Str(), kHead + "<doc/>");
}

TEST(Xml, CopiesShareOneTreeAndDeepCopiesDoNot) {
    Xml xml;
    const Xml same = xml;
    XmlNode kept;
    {
        const Xml other = Xml::FromString("<x><y a='1'>t</y></x>");
        kept = other.GetNode("/x/y");
        xml.GetRoot().AppendChild(kept).SetProp("a", "2");
    }
    EXPECT_EQ(same.Str(), kHead + "<doc><y a=\"2\">t</y></doc>");
    EXPECT_EQ(kept.GetProp("a") + kept.Parent().Name(), "1x");  // alive without its document
    kept = xml.GetNode("/doc/y");
    kept.DropProp("a");
    kept.SetContent("<");
    kept.SetName("z");
    EXPECT_EQ(same.Str(), kHead + "<doc><z>&lt;</z></doc>");
    kept.Unlink();
    EXPECT_FALSE(kept);
    EXPECT_EQ(same.Str(), kHead + "<doc/>");
}

}  // namespace
