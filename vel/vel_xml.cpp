#include "vel/vel_xml.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string_view>

#include <pugixml.hpp>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"

namespace vel_xml {

/// Texts and names in a tree are always what XML can hold: they are cleaned on their way in, so
/// that writing a document needs no look at them.
struct Tree {
    std::string text;  // that it was parsed from, in place
    pugi::xml_document doc;
};

namespace {

constexpr std::size_t kMaxSize = std::size_t{512} << 20;
constexpr int kMaxDepth = 256;
constexpr std::size_t kBlock = std::size_t{1} << 16;
constexpr std::size_t kMaxAttributes = 10'000;  // of one element
constexpr std::size_t kMaxAsides = 100'000;     // comments and processing instructions

// Line breaks and tabs in attributes are kept (no parse_wconv_attribute): they are bytes of names.
constexpr unsigned kParse =
    ((pugi::parse_full | pugi::parse_ws_pcdata | pugi::parse_declaration | pugi::parse_fragment) &
     ~pugi::parse_wconv_attribute);

[[noreturn]] void Refuse(const std::string& reason) {
    throw vel_err::Error("xml", "parse_failed", reason);
}

// ---- Texts --------------------------------------------------------------------------------------

unsigned Byte(char c) { return static_cast<unsigned char>(c); }

/// Signed: one comparison finds control bytes and those from 0x80 on.
bool IsPlain(char c) {
    return static_cast<signed char>(c) >= ' ' || c == '\t' || c == '\n' || c == '\r';
}

/// The size of the UTF-8 character at the beginning of `s` when XML can hold it, else 0.
std::size_t CharacterSize(std::string_view s) {
    const unsigned lead = Byte(s[0]);
    if (lead < 0x80) return IsPlain(s[0]) ? 1 : 0;
    const std::size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || s.size() < size) return 0;
    uint32_t code = lead & (0x7fU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((Byte(s[i]) & 0xc0) != 0x80) return 0;
        code = code << 6 | (Byte(s[i]) & 0x3f);
    }
    const bool overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return overlong || surrogate || code > 0x10ffff || (code & ~1U) == 0xfffe ? 0 : size;
}

using Block __attribute__((vector_size(16))) = signed char;

/// 16 bytes, each -1 where one that is plain stands, else 0.
Block PlainIn(const char* bytes) {
    Block b;
    std::memcpy(&b, bytes, sizeof(b));
    return (b >= ' ') | (b == '\t') | (b == '\n') | (b == '\r');
}

/// How many bytes at the beginning of `s` are plain.
std::size_t PlainBytes(std::string_view s) {
    std::size_t i = 0;
    for (; i + 64 <= s.size(); i += 64) {
        const char* at = &s[i];
        const Block plain = PlainIn(at) & PlainIn(at + 16) & PlainIn(at + 32) & PlainIn(at + 48);
        uint64_t words[2];
        std::memcpy(words, &plain, sizeof(words));
        if (~(words[0] & words[1]) != 0) break;
    }
    while (i < s.size() && IsPlain(s[i])) ++i;
    return i;
}

/// Where the first byte stands that XML cannot hold; the end when there is none.
std::size_t FirstBad(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const std::string_view rest = s.substr(i);
        const std::size_t size = IsPlain(s[i]) ? PlainBytes(rest) : CharacterSize(rest);
        if (size == 0) break;
        i += size;
    }
    return i;
}

std::string Clean(std::string s) {
    for (std::size_t i = FirstBad(s); i < s.size(); i += FirstBad(std::string_view(s).substr(i))) {
        s[i] = '?';
    }
    return s;
}

void CheckName(const std::string& name) {
    const auto starts = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
               Byte(c) >= 0x80;
    };
    const auto follows = [&starts](char c) {
        return starts(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
    };
    const bool good = !name.empty() && starts(name[0]) &&
                      std::all_of(name.begin(), name.end(), follows) &&
                      FirstBad(name) == name.size();
    if (!good) throw vel_err::Error("xml", "bad_name", name);
}

// ---- Before parsing -----------------------------------------------------------------------------

/// Goes through the tags of a text and no more: what would grow into too big a tree is refused
/// before any of it is built. A text that is no document passes, the parser refuses that.
class Skimmer {
public:
    explicit Skimmer(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}
    void Run() {
        while (SkipTo('<') && at_ != end_) {
            if (*at_ == '/') {
                --depth_;
            } else if (*at_ == '!' || *at_ == '?') {
                SkipAside();
            } else {
                SkipElement();
            }
        }
    }

private:
    /// Goes behind the next byte of this value, else to the end.
    bool SkipTo(char c) {
        const void* found = std::memchr(at_, c, static_cast<std::size_t>(end_ - at_));
        at_ = found ? static_cast<const char*>(found) + 1 : end_;
        return found != nullptr;
    }
    bool Skip(std::string_view begin, std::string_view end);
    void SkipAside();
    void SkipElement();

    const char* at_;
    const char* const end_;
    std::size_t asides_ = 0;
    int depth_ = 0;
};

/// True when `begin` stands here; then goes behind the next `end`.
bool Skimmer::Skip(std::string_view begin, std::string_view end) {
    const std::string_view rest(at_, static_cast<std::size_t>(end_ - at_));
    if (rest.substr(0, begin.size()) != begin) return false;
    const std::size_t found = rest.find(end, begin.size());
    at_ = found == std::string_view::npos ? end_ : at_ + found + end.size();
    return true;
}

void Skimmer::SkipAside() {
    if (Skip("![CDATA[", "]]>")) return;
    if (!Skip("!--", "-->") && !Skip("?", "?>")) Refuse("a document type is not accepted");
    if (++asides_ > kMaxAsides) Refuse("over 100000 comments and processing instructions");
}

void Skimmer::SkipElement() {
    std::size_t attributes = 0;
    for (; at_ != end_ && *at_ != '>'; ++at_) {
        const char quote = *at_;
        if (quote > '>' || (quote != '"' && quote != '\'')) continue;  // mostly a letter
        if (++attributes > kMaxAttributes) Refuse("over 10000 attributes in one element");
        ++at_;
        if (!SkipTo(quote)) return;
        --at_;  // on the quote that ends the value
    }
    if (at_ == end_) return;
    if (depth_ >= kMaxDepth) Refuse("over 256 levels deep");
    if (at_[-1] != '/') ++depth_;
}

// ---- Parsing ------------------------------------------------------------------------------------

/// The value of an element is the text that it begins with.
void SetValue(pugi::xml_node node, const std::string& value) {
    if (node.type() == pugi::node_element) {
        node.text().set(value.c_str());
    } else {
        node.set_value(value.c_str());
    }
}

/// Cleans what came from outside.
class Cleaner : public pugi::xml_tree_walker {
public:
    bool for_each(pugi::xml_node& node) override {
        CheckForeignName(node.name());
        if (IsBad(node.value())) SetValue(node, Clean(node.value()));
        for (pugi::xml_attribute attribute : node.attributes()) {
            CheckForeignName(attribute.name());
            if (IsBad(attribute.value())) attribute.set_value(Clean(attribute.value()).c_str());
        }
        return true;
    }

private:
    static bool IsBad(const char* text) { return FirstBad(text) != std::string_view(text).size(); }
    static void CheckForeignName(const char* name) {
        if (IsBad(name)) Refuse("a name is not UTF-8");
    }
};

void CheckEncoding(const pugi::xml_node& declaration) {
    const std::string encoding = str::Lower(declaration.attribute("encoding").value());
    if (!encoding.empty() && encoding != "utf-8" && encoding != "utf8" && encoding != "us-ascii") {
        Refuse("the encoding is not UTF-8");
    }
}

bool IsText(pugi::xml_node_type type) {
    return type == pugi::node_pcdata || type == pugi::node_cdata;
}

/// The top level holds exactly one element, and what a well-formed document has beside it.
void CheckTopLevel(pugi::xml_document& doc) {
    int elements = 0;
    for (pugi::xml_node node = doc.first_child(), next; node; node = next) {
        next = node.next_sibling();
        const pugi::xml_node_type type = node.type();
        if (type == pugi::node_doctype) Refuse("a document type is not accepted");
        if (type == pugi::node_declaration) CheckEncoding(node);
        if (type == pugi::node_element) ++elements;
        if (IsText(type) && !str::Trim(node.value()).empty()) Refuse("text outside the root");
        if (IsText(type) || type == pugi::node_declaration) doc.remove_child(node);
    }
    if (elements != 1) Refuse(elements == 0 ? "no root element" : "more than one root element");
}

void AddDeclaration(pugi::xml_document& doc) {
    pugi::xml_node declaration = doc.prepend_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "UTF-8";
}

std::shared_ptr<Tree> Parse(std::string text, Texts texts = Texts::Apart) {
    if (text.size() > kMaxSize) Refuse("over 512 MiB");
    // Usually one look at the bytes is enough: only a reference can bring in what is not there.
    const bool clean = FirstBad(text) == text.size() && text.find("&#") == std::string::npos;
    if (!clean && text.find('\0') != std::string::npos) Refuse("a NUL byte");
    Skimmer(text).Run();
    auto tree = std::make_shared<Tree>();
    tree->text = std::move(text);
    const unsigned joined = texts == Texts::Joined ? pugi::parse_embed_pcdata : 0;
    // With the NUL behind it: the parser puts its end mark over the last byte.
    const pugi::xml_parse_result result = tree->doc.load_buffer_inplace(
        tree->text.data(), tree->text.size() + 1, kParse | joined, pugi::encoding_utf8);
    if (!result) {
        Refuse(std::string(result.description()) + " at byte " + std::to_string(result.offset));
    }
    CheckTopLevel(tree->doc);
    Cleaner cleaner;
    if (!clean) tree->doc.traverse(cleaner);
    AddDeclaration(tree->doc);
    return tree;
}

std::shared_ptr<Tree> EmptyTree() {
    auto tree = std::make_shared<Tree>();
    AddDeclaration(tree->doc);
    tree->doc.append_child("doc");
    return tree;
}

std::string ReadAll(std::istream& in) {
    std::string text;
    std::string block(std::size_t{1} << 18, '\0');
    while (in && text.size() <= kMaxSize) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block, 0, static_cast<std::size_t>(in.gcount()));
    }
    if (in.bad()) Refuse("the source cannot be read");
    return text;
}

// ---- Walking ------------------------------------------------------------------------------------

pugi::xml_node Node(void* node) {
    return pugi::xml_node(static_cast<pugi::xml_node_struct*>(node));
}

pugi::xml_node ElementOrNext(pugi::xml_node node) {
    while (node && node.type() != pugi::node_element) node = node.next_sibling();
    return node;
}

class TextCollector : public pugi::xml_tree_walker {
public:
    bool for_each(pugi::xml_node& node) override {
        if (IsText(node.type()) || node.type() == pugi::node_element) text += node.value();
        return true;
    }
    std::string text;
};

template <class Visit>
class ElementWalker : public pugi::xml_tree_walker {
public:
    ElementWalker(const std::string& name, const Visit& visit)
        : name_(name.c_str()), visit_(visit) {}
    bool for_each(pugi::xml_node& node) override {
        if (std::strcmp(node.name(), name_) == 0 && node.type() == pugi::node_element) visit_(node);
        return true;
    }

private:
    const char* const name_;
    const Visit& visit_;
};

/// The text of a node that holds nothing else.
void SetText(pugi::xml_node node, const std::string& text) { node.text().set(Clean(text).c_str()); }

pugi::xpath_node_set Select(const std::shared_ptr<Tree>& tree, const std::string& xpath) {
    if (!tree) return {};
    try {
        return tree->doc.select_nodes(xpath.c_str());
    } catch (const pugi::xpath_exception& e) {
        throw vel_err::Error("xml", "bad_xpath", xpath + ": " + e.what());
    }
}

/// Collects the document. The library writes a carriage return in a text as it is, and every parser
/// would turn it into a line feed, so it becomes a reference here; it stands nowhere else.
struct StringWriter : pugi::xml_writer {
    void write(const void* data, std::size_t size) override {
        std::string_view rest(static_cast<const char*>(data), size);
        for (std::size_t at; (at = rest.find('\r')) != std::string_view::npos;) {
            text.append(rest, 0, at).append("&#13;");
            rest.remove_prefix(at + 1);
        }
        text.append(rest);
    }
    std::string text;
};

/// Writes it out as it comes: a large document never stands in memory as a text.
struct FileWriter : StringWriter {
    FileWriter(int descriptor, const std::string& file) : fd(descriptor), path(file) {}
    void write(const void* data, std::size_t size) override {
        StringWriter::write(data, size);
        if (text.size() >= kBlock) Flush();
    }
    void Flush() {
        vel_file::WriteAll(fd, text, path);
        text.clear();
    }
    int fd;
    const std::string& path;
};

void SaveTo(pugi::xml_writer& writer, const pugi::xml_document& doc, bool formatted) {
    doc.save(writer, "  ", formatted ? pugi::format_indent : pugi::format_raw, pugi::encoding_utf8);
}

}  // namespace

// ---- XmlNode ------------------------------------------------------------------------------------

XmlNode::operator bool() const { return node_ != nullptr; }

std::string XmlNode::Name() const { return Node(node_).name(); }

std::string XmlNode::Str() const {
    TextCollector collector;
    collector.text = Node(node_).value();
    Node(node_).traverse(collector);
    return std::move(collector.text);
}

std::string XmlNode::GetProp(const std::string& name) const {
    return Node(node_).attribute(name.c_str()).value();
}

bool XmlNode::IsProp(const char* name, const char* value) const {
    return std::strcmp(Node(node_).attribute(name).value(), value) == 0;
}

XmlNode XmlNode::SetProp(const std::string& name, const std::string& value) {
    if (!node_) return *this;
    pugi::xml_attribute attribute = Node(node_).attribute(name.c_str());
    if (!attribute || attribute.name() != name) {
        CheckName(name);
        attribute = Node(node_).append_attribute(name.c_str());
    }
    const bool clean = FirstBad(value) == value.size();
    attribute.set_value(clean ? value.c_str() : Clean(value).c_str());
    return *this;
}

void XmlNode::DropProp(const std::string& name) { Node(node_).remove_attribute(name.c_str()); }

void XmlNode::SetContent(const std::string& text) {
    pugi::xml_node node = Node(node_);
    node.remove_children();
    if (*node.value() != '\0' || !text.empty()) SetText(node, text);
}

void XmlNode::SetName(const std::string& name) {
    if (!node_) return;
    CheckName(name);
    Node(node_).set_name(name.c_str());
}

XmlNode XmlNode::FirstChild() const {
    return {tree_, ElementOrNext(Node(node_).first_child()).internal_object()};
}

XmlNode XmlNode::Next() const {
    return {tree_, ElementOrNext(Node(node_).next_sibling()).internal_object()};
}

XmlNode XmlNode::Parent() const {
    const pugi::xml_node parent = Node(node_).parent();
    if (parent.type() != pugi::node_element) return {};
    return {tree_, parent.internal_object()};
}

XmlNode XmlNode::AppendChild(const std::string& name) {
    if (!node_) return {};
    CheckName(name);
    return {tree_, Node(node_).append_child(name.c_str()).internal_object()};
}

XmlNode XmlNode::AppendChild(const std::string& name, const std::string& text) {
    XmlNode child = AppendChild(name);
    child.SetContent(text);
    return child;
}

XmlNode XmlNode::AppendChild(const XmlNode& source) {
    if (!node_ || !source) return {};
    return {tree_, Node(node_).append_copy(Node(source.node_)).internal_object()};
}

void XmlNode::Unlink() {
    const pugi::xml_node node = Node(node_);
    node.parent().remove_child(node);
    *this = {};
}

// ---- Xml ----------------------------------------------------------------------------------------

Xml::Xml() : tree_(EmptyTree()) {}
Xml::Xml(std::istream& in) { Load(in); }

Xml Xml::FromString(const std::string& text) {
    Xml xml;
    xml.tree_ = Parse(text);
    return xml;
}

Xml Xml::FromStranger(const std::string& text) {
    if (text.size() > kStrangersLimit) Refuse("over 1 MiB");
    return FromString(text);
}

void Xml::LoadFromFile(const std::string& path, Texts texts) {
    // Not read at all: a file with a hole has any size for nothing.
    if (vel_file::Info(path, false).Size() > kMaxSize) Refuse(path + ": over 512 MiB");
    std::string text = vel_file::ReadE(path);
    try {
        tree_ = Parse(std::move(text), texts);
    } catch (const vel_err::Error& e) {
        Refuse(path + ": " + e.value());
    }
}

void Xml::Load(std::istream& in) { tree_ = Parse(ReadAll(in)); }

XmlNode Xml::GetRoot() const {
    if (!tree_) return {};
    return {tree_, tree_->doc.document_element().internal_object()};
}

XmlNode Xml::GetNode(const std::string& xpath) const {
    const XmlNodes nodes = GetNodes(xpath);
    return nodes.empty() ? XmlNode() : *nodes.begin();
}

XmlNodes Xml::GetNodes(const std::string& xpath) const {
    pugi::xpath_node_set found = Select(tree_, xpath);
    found.sort();
    XmlNodes out;
    for (const pugi::xpath_node& one : found) {
        if (one.node().type() != pugi::node_element) continue;
        out.nodes_.push_back(XmlNode(tree_, one.node().internal_object()));
    }
    return out;
}

void Xml::ForEach(const std::string& name, const std::function<void(const XmlNode&)>& visit) const {
    if (!tree_) return;
    const auto each = [&](pugi::xml_node& node) { visit({tree_, node.internal_object()}); };
    ElementWalker walker(name, each);
    tree_->doc.traverse(walker);
}

void Xml::RemoveNodes(const std::string& xpath) {
    XmlNodes found = GetNodes(xpath);
    // Backwards: what lies within another hit goes before it.
    for (std::size_t i = found.nodes_.size(); i > 0; --i) found.nodes_[i - 1].Unlink();
}

void Xml::Save(const std::string& path, bool formatted) const {
    if (!tree_) return Xml().Save(path, formatted);
    vel_file::Write(path, [&](int fd) {
        FileWriter writer(fd, path);
        SaveTo(writer, tree_->doc, formatted);
        writer.Flush();
    });
}

std::string Xml::Str(bool formatted) const {
    if (!tree_) return Xml().Str(formatted);
    StringWriter writer;
    SaveTo(writer, tree_->doc, formatted);
    return std::move(writer.text);
}

}  // namespace vel_xml
