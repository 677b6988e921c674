/// Database dumps on their way from an archive into the tree.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sbin/foreign_panel/out_tree.h"

namespace foreign_panel {

/// SQL text of the dump program of MySQL or MariaDB. Collations that only MySQL 8 knows become the
/// nearest that MariaDB has, in definitions only: lines of data pass as they are.
class SqlDump {
public:
    explicit SqlDump(OutTree::Content source) : source_(std::move(source)) {}
    /// The content as it is to be written; refers to this object.
    OutTree::Content Content();
    bool Complete() const;  ///< ends with the dump program's own mark
    uint64_t Collations() const { return collations_; }
    const std::string& Version() const { return version_; }  ///< of the server, "" when not said

private:
    bool Next(std::string_view& bytes, uint64_t& offset);
    void Feed(std::string_view bytes);
    void FeedLine(std::string_view piece);
    void EndLine();

    OutTree::Content source_;
    std::string line_, out_, tail_, version_;
    bool passing_ = false;  // the rest of this line goes through unseen
    bool ended_ = false;
    uint64_t written_ = 0, collations_ = 0;
};

enum class PostgresqlForm { Custom, Tar, Text };
/// `beginning`: at least the first 512 bytes, or all of a shorter dump.
PostgresqlForm FormOf(std::string_view beginning);

}  // namespace foreign_panel
