#include "sbin/foreign_panel/yaml.h"

#include <map>
#include <sstream>
#include <stdexcept>

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr std::size_t kMostBytes = 4 << 20, kMostValues = 200'000, kMostDepth = 32;

}  // namespace

/// Builds the tree from the parser's events.
class YamlBuilder : public YAML::EventHandler {
public:
    Yaml::Pointer Root() const { return root_ ? root_ : std::make_shared<Yaml>(); }

    void OnDocumentStart(const YAML::Mark&) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override { Add(mark, anchor, ""); }
    void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                  const std::string& value) override {
        Add(mark, anchor, value);
    }
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
        const auto found = anchors_.find(anchor);
        if (found == anchors_.end()) Refuse(mark, "an alias of nothing");
        for (const Open& open : open_)
            if (open.node == found->second) Refuse(mark, "an alias of what it stands in");
        Place(mark, found->second);
    }
    void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value) override {
        Begin(mark, anchor, false);
    }
    void OnSequenceEnd() override { open_.pop_back(); }
    void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value) override {
        Begin(mark, anchor, true);
    }
    void OnMapEnd() override { open_.pop_back(); }

private:
    struct Open {
        Yaml::Pointer node;
        bool is_map, has_key;
        std::string key;
    };

    [[noreturn]] static void Refuse(const YAML::Mark& mark, const std::string& why) {
        throw std::runtime_error("line " + str::Str(mark.line + 1) + ": " + why);
    }
    void Add(const YAML::Mark& mark, YAML::anchor_t anchor, const std::string& text) {
        const auto node = std::make_shared<Yaml>();
        node->text_ = text;
        if (anchor) anchors_[anchor] = node;
        Place(mark, node);
    }
    void Begin(const YAML::Mark& mark, YAML::anchor_t anchor, bool is_map) {
        if (open_.size() >= kMostDepth) Refuse(mark, "nested too deeply");
        const auto node = std::make_shared<Yaml>();
        if (anchor) anchors_[anchor] = node;
        Place(mark, node);
        open_.push_back({node, is_map, false, ""});
    }
    /// As the root, the next key, its value, or the next of a sequence.
    void Place(const YAML::Mark& mark, const Yaml::Pointer& node) {
        if (++values_ > kMostValues) Refuse(mark, "too many values");
        if (open_.empty()) {
            root_ = node;
            return;
        }
        Open& into = open_.back();
        if (!into.is_map) {
            into.node->list_.push_back(node);
        } else if (!into.has_key) {
            into.key = node->text_;
            into.has_key = true;
        } else {
            into.node->map_.emplace_back(std::move(into.key), node);
            into.has_key = false;
        }
    }

    Yaml::Pointer root_;
    std::vector<Open> open_;
    std::map<YAML::anchor_t, Yaml::Pointer> anchors_;
    std::size_t values_ = 0;
};

Yaml::Pointer Yaml::Parse(const std::string& text) {
    if (text.size() > kMostBytes) throw std::runtime_error("too long for a YAML document");
    try {
        std::istringstream in(text);
        YAML::Parser parser(in);
        YamlBuilder builder;
        parser.HandleNextDocument(builder);
        return builder.Root();
    } catch (const YAML::Exception& e) {
        throw std::runtime_error("line " + str::Str(e.mark.line + 1) + ": " + e.msg);
    }
}

std::string Yaml::Get(const std::string& key) const { return At(key).text_; }

const Yaml& Yaml::At(const std::string& key) const {
    static const Yaml kNone;
    for (const auto& [name, value] : map_)
        if (name == key) return *value;
    return kNone;
}

}  // namespace foreign_panel
