/// What became of everything in a foreign archive, so that nobody has to find out by missing it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace foreign_panel {

/// Carried: as it was. Changed: carried in another form, the text says how. Lost: is not here, the
/// text says why. NotNeeded: the other panel's own (logs, counters), nothing that anybody misses.
enum class Fate { Carried, Changed, Lost, NotNeeded };

class Report {
public:
    /// Of each fate and kind the first 1000 are kept by name, the others are only counted.
    void Add(Fate fate, const std::string& kind, const std::string& name,
             const std::string& text = "");
    void CountFile(uint64_t bytes) {
        ++files_;
        bytes_ += bytes;
    }
    void CountFolder() { ++folders_; }
    void CountLink() { ++links_; }
    bool AnythingLost() const;
    /// Facts about the run, in the order of their first setting: "archive", "panel", "account" ...
    void Set(const std::string& key, const std::string& value);

    std::string Text() const;  ///< lines "fate TAB kind TAB name TAB text", then sums
    /// {"archive": ..., "files": N, "folders": N, "links": N, "bytes": N, "status":
    /// "complete"|"lossy", "counts": {fate: {kind: N}}, fate: [{"kind", "name", "text"}], ...}
    /// Names that are no UTF-8 have "name_hex" besides.
    std::string Json() const;

private:
    struct Line {
        std::string kind, name, text;
    };
    struct Pile {
        std::vector<Line> lines;
        std::map<std::string, uint64_t> counts;
    };
    std::map<Fate, Pile> piles_;
    std::vector<std::pair<std::string, std::string>> facts_;
    uint64_t files_ = 0, folders_ = 0, links_ = 0, bytes_ = 0;
};

}  // namespace foreign_panel
