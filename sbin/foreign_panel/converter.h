/// The frame of a converter program: command line, limits, the output folder, the report.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sbin/foreign_panel/budget.h"
#include "sbin/foreign_panel/out_tree.h"
#include "sbin/foreign_panel/panel_document.h"
#include "sbin/foreign_panel/report.h"
#include "sbin/foreign_panel/unpacker.h"

namespace foreign_panel {

struct Options {
    std::string archive, out, report_file;  ///< absolute
    std::string account;                    ///< which account of the archive, "" = the only one
    std::string user;                       ///< its name here, "" = as there
    std::optional<Owner> owner;
    bool dry_run = false, json = false;
    Limits limits;
};

/// A dump in the tree, as docs/foreign-panels.md describes it.
struct Dump {
    std::string path, format, version;
    bool complete = true;
    void Describe(PanelObject& database) const;
};

/// All that a conversion works with.
struct Job {
    const Options& options;
    Budget& budget;
    OutTree& tree;
    Unpacker& unpacker;
    Report& report;
    PanelDocument& document;

    void Carried(const std::string& kind, const std::string& name) {
        report.Add(Fate::Carried, kind, name);
    }
    void Changed(const std::string& kind, const std::string& name, const std::string& how) {
        report.Add(Fate::Changed, kind, name, how);
    }
    void Lost(const std::string& kind, const std::string& name, const std::string& why) {
        report.Add(Fate::Lost, kind, name, why);
    }
    void NotNeeded(const std::string& kind, const std::string& name) {
        report.Add(Fate::NotNeeded, kind, name);
    }
    /// Puts a password into an object; says when there is none that can be used.
    void Secret(PanelObject& object, const Password& password, const std::string& kind,
                const std::string& name);
    /// One dump, as db/TYPE.NAME...; content that cannot be used here is reported as lost and gives
    /// nothing.
    std::optional<Dump> MysqlDump(const std::string& name, const OutTree::Content& content);
    std::optional<Dump> PostgresqlDump(const std::string& name, const OutTree::Content& content);
    /// The account's name here.
    const std::string& User(const std::string& there) const {
        return options.user.empty() ? there : options.user;
    }
};

/// The whole of a program but for main. `panel` as in the table of external converters. `convert`
/// puts everything into the job; what it throws ends the program with status 1 and removes all.
int RunConverter(const std::string& panel, const std::string& help,
                 const std::vector<std::string>& arguments,
                 const std::function<void(Job&)>& convert);

}  // namespace foreign_panel
