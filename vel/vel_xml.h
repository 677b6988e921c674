/// XML documents. Copies of a document and its nodes share one tree, which lives as long as any
/// of them. Refused with vel_err::Error("xml", "parse_failed", reason), before much memory is
/// taken: a DOCTYPE, over 256 levels, 10000 attributes in one element, 100000 comments and
/// processing instructions, 512 MiB. What a stranger sends has a limit of its own (FromStranger).
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <string>
#include <vector>

namespace vel_xml {

struct Tree;  // the library's document, hidden in the source

/// An element, or nothing: a null node answers with empty texts and null nodes and ignores changes.
/// Bytes that XML cannot hold become "?" when a text is put in or parsed. A name that XML does not
/// allow throws vel_err::Error("xml", "bad_name", name). Once an element is unlinked or its content
/// replaced, other handles to it and to what was in it must not be used any more.
class XmlNode {
public:
    XmlNode() = default;
    explicit operator bool() const;
    std::string Name() const;
    std::string Str() const;                             ///< all text below it, in document order
    std::string GetProp(const std::string& name) const;  ///< "" when absent
    bool IsProp(const char* name, const char* value) const;  ///< whether GetProp gives this value
    XmlNode SetProp(const std::string& name, const std::string& value);
    void DropProp(const std::string& name);
    void SetContent(const std::string& text);  ///< replaces everything in it by the text
    void SetName(const std::string& name);
    XmlNode FirstChild() const;  ///< elements only, here and below
    XmlNode Next() const;
    XmlNode Parent() const;
    XmlNode AppendChild(const std::string& name);
    XmlNode AppendChild(const std::string& name, const std::string& text);
    XmlNode AppendChild(const XmlNode& source);  ///< a deep copy
    void Unlink();  ///< takes the node out of its document; it is null afterwards

private:
    friend class Xml;
    XmlNode(std::shared_ptr<Tree> tree, void* node) : tree_(std::move(tree)), node_(node) {}
    std::shared_ptr<Tree> tree_;
    void* node_ = nullptr;
};

/// Bytes of a stranger's document: whatever stands in them, the tree takes less than 32 MiB.
inline constexpr std::size_t kStrangersLimit = std::size_t{1} << 20;

class XmlNodes {
public:
    auto begin() const { return nodes_.begin(); }
    auto end() const { return nodes_.end(); }
    bool empty() const { return nodes_.empty(); }
    std::size_t size() const { return nodes_.size(); }

private:
    friend class Xml;
    std::vector<XmlNode> nodes_;
};

/// How a document's texts are held. Joined with their elements they take a quarter less memory and
/// time, but expressions must not ask for texts: for large documents that are changed and saved.
enum class Texts { Apart, Joined };

class Xml {
public:
    Xml();  ///< <doc/>
    explicit Xml(std::istream& in);
    static Xml FromString(const std::string& text);
    /// For texts from other machines: over kStrangersLimit is refused as well.
    static Xml FromStranger(const std::string& text);
    /// Reads as vel_file::ReadE does.
    void LoadFromFile(const std::string& path, Texts texts = Texts::Apart);
    void Load(std::istream& in);

    XmlNode GetRoot() const;
    /// First match or a null node. A bad expression throws vel_err::Error("xml", "bad_xpath", ...)
    /// in all three.
    XmlNode GetNode(const std::string& xpath) const;
    XmlNodes GetNodes(const std::string& xpath) const;  ///< all elements, in document order
    /// Every element of this name, in document order. `visit` may change what it gets and all that
    /// lies in it, but not take it out of its place.
    void ForEach(const std::string& name, const std::function<void(const XmlNode&)>& visit) const;
    void RemoveNodes(const std::string& xpath);
    /// Replaces the file in one step.
    void Save(const std::string& path, bool formatted) const;
    std::string Str(bool formatted = false) const;

private:
    std::shared_ptr<Tree> tree_;
};

}  // namespace vel_xml
