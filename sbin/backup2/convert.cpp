/// backup2 convert: panel data of one edition in the form of another.
#include <sys/stat.h>

#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/vel_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/edition.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
A restore converts by itself; this is for documents that travel by other ways. The file is replaced
in one step and keeps its mode and owner; one that needs no conversion is not written at all.

Examples:
  backup2 convert user.bob --host-dist 1                  in place, for the smaller edition
  backup2 convert user.bob --host-dist 3 --output bob.xml into another file
  backup2 convert user.bob                                for the panel of this machine

Exit status 3: the document has no /doc/info and was left as it is.)";

struct Options {
    std::string file, output, host_dist;
};

/// The new file has the mode and owner of the one it was made of.
void SaveBeside(const vel_xml::Xml& xml, const std::string& file, const std::string& output) {
    const struct stat from = vel_file::Info(file).Stat();
    const vel_file::Tmp tmp(output);
    xml.Save(tmp.Path(), false);
    vel_file::Attrs(from.st_mode & 07777, from.st_uid, from.st_gid).Set(tmp.Path());
    vel_file::Move(tmp.Path(), output);
}

/// "" stays. A folder that is not there is a slip of the pen, and is not made; what is no file (a
/// link, a device) would be gone for good.
std::string CheckOutput(const std::string& typed) {
    if (typed.empty()) return "";
    const std::string output = vel_tool::Absolute(typed);
    const std::string folder = vel_file::SplitPath(output).dir;
    if (!folder.empty() && !vel_file::Exists(folder))
        throw std::runtime_error("there is no folder " + folder);
    const vel_file::Info there(output, false);
    if (there.Exists() && !there.IsFile()) throw std::runtime_error("not a file: " + output);
    return output;
}

int RunConvert(const Options& options) {
    const std::string file = vel_tool::Absolute(options.file);
    const std::string output = CheckOutput(options.output);
    const std::string dist =
        options.host_dist.empty() ? AskHostDist() : CheckDist(options.host_dist);
    vel_xml::Xml xml;
    xml.LoadFromFile(file, vel_xml::Texts::Joined);
    const bool known = static_cast<bool>(xml.GetNode("/doc/info"));
    const std::string kind = ConvertFor(xml, dist);
    if (kind.empty()) {
        if (!output.empty()) vel_file::CopyFile(file, output);
    } else {
        output.empty() ? xml.Save(file, false) : SaveBeside(xml, file, output);
    }
    std::cout << Printable(options.file) << ": "
              << (!known         ? "unchanged, the document has no /doc/info"
                  : kind.empty() ? "unchanged, already in the form of edition " + dist
                                 : "converted for edition " + dist + " (" + kind + ")")
              << std::endl;
    return known ? vel_tool::kDone : vel_tool::kWarnings;
}

}  // namespace

void AddConvert(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("convert", "Bring panel data into another edition's form");
    const auto options = std::make_shared<Options>();
    command->add_option("file", options->file, "The document")->required();
    command->add_option("--host-dist", options->host_dist,
                        "Code of the edition it is for (default: of the panel here)");
    command->add_option("--output", options->output, "Write this file, leave the other one");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return RunConvert(*options); }; });
}

}  // namespace backup2_admin
