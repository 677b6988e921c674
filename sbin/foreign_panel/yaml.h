/// Small YAML documents of strangers. Aliases share what they name, so that no document grows by
/// them; size, depth and number of values are bounded.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace foreign_panel {

class Yaml {
public:
    using Pointer = std::shared_ptr<Yaml>;
    /// Throws std::runtime_error "line N: ..." for what is no YAML or passes a limit.
    static Pointer Parse(const std::string& text);

    const std::string& Text() const { return text_; }  ///< of a scalar; "" for others
    /// Of a map: the text of that key's scalar, "" when it is none.
    std::string Get(const std::string& key) const;
    /// Of a map: the value, an empty one when there is none.
    const Yaml& At(const std::string& key) const;
    const std::vector<Pointer>& List() const { return list_; }  ///< of a sequence
    const std::vector<std::pair<std::string, Pointer>>& Map() const { return map_; }

private:
    friend class YamlBuilder;
    std::string text_;
    std::vector<Pointer> list_;
    std::vector<std::pair<std::string, Pointer>> map_;
};

}  // namespace foreign_panel
