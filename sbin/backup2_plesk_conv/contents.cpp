#include "sbin/backup2_plesk_conv/contents.h"

#include <utility>

#include "vel/str.h"
#include "vel/vel_file.h"

#include "sbin/foreign_panel/archive_reader.h"

namespace plesk {
namespace {

using namespace foreign_panel;
using vel_xml::XmlNode;

/// Folders of a web space in backups that keep each of them in an archive of its own.
std::string PlaceFor(const std::string& kind, const std::string& space,
                     const std::string& docroot) {
    static const std::map<std::string, std::string> kFolders = {{"user-data", ""},
                                                                {"apache-files", ""},
                                                                {"docroot_ssl", "httpsdocs"},
                                                                {"cgi", "cgi-bin"},
                                                                {"private", "private"},
                                                                {"error_docs", "error_docs"},
                                                                {"webuser_home", "web_users"}};
    if (kind == "docroot") return docroot.empty() ? space + "/httpdocs" : docroot;
    const auto found = kFolders.find(kind);
    if (found == kFolders.end()) return "";
    return found->second.empty() ? space : space + "/" + found->second;
}

const std::set<std::string> kNotNeeded = {"logs",         "statistics", "webstat",
                                          "webstat_ssl",  "ftp_stat",   "ftpstat",
                                          "anon_ftpstat", "action-log", "pd"};

/// The path below `folder`; false when it is not below it.
bool Below(const std::string& path, const std::string& folder, std::string& inner) {
    if (folder.empty()) return inner = path, true;
    if (!str::StartsWith(path, folder + "/")) return false;
    inner = path.substr(folder.size() + 1);
    return true;
}

}  // namespace

void Contents::Files(const XmlNode& node, const Subscription& of, const std::string& web_space,
                     const std::string& docroot) {
    for (const XmlNode& cid : Children(Child(node, "content"), "cid")) {
        const std::string kind = cid.GetProp("type");
        const std::string place = PlaceFor(kind, web_space, docroot);
        if (!place.empty())
            Note(cid, of,
                 {Kind::Files, "", place, kind + " of " + of.name, PanelObject(XmlNode())});
        else if (kNotNeeded.count(kind) > 0)
            job_.NotNeeded("content", kind + " of " + of.name);
        else
            job_.Lost("content", kind + " of " + of.name,
                      "settings or data of a kind that is not known here");
    }
}

void Contents::Mailbox(const XmlNode& node, const Subscription& of, const std::string& address,
                       const PanelObject& object) {
    std::string domain = address;
    const std::string name = str::GetWord(domain, '@');
    boxes_.emplace(address, Box{object});
    for (const XmlNode& cid : Children(Child(node, "content"), "cid"))
        Note(cid, of,
             {Kind::Mailbox, "", "data/mail/" + domain + "/" + name, "mailbox " + address, object});
}

void Contents::DomainMail(const XmlNode& node, const Subscription& of, const std::string& domain) {
    for (const XmlNode& cid : Children(Child(node, "content"), "cid"))
        Note(cid, of,
             {Kind::DomainMail, "", "data/mail/" + domain, "mail of " + domain,
              PanelObject(XmlNode())});
}

void Contents::Dump(const XmlNode& node, const Subscription& of, const std::string& type,
                    const std::string& name, const PanelObject& object) {
    const Kind kind = type == "mysql" ? Kind::Mysql : Kind::Postgresql;
    const auto cids = Children(Child(node, "content"), "cid");
    if (cids.empty()) job_.Lost("database", name, "the backup names no dump of it");
    for (const XmlNode& cid : cids) Note(cid, of, {kind, "", name, "database " + name, object});
}

/// Older backups give the folder beside the name of the file, newer ones in the name or not at all.
std::string Contents::Find(const std::string& file, const std::string& path,
                           const Subscription& of) const {
    for (const std::string& folder : {backup_.base, of.folder}) {
        for (const std::string& inner : {path, std::string()}) {
            const std::string name = SafePath(vel_file::ConcatPath(folder, inner, file));
            if (!name.empty() && backup_.files.count(name) > 0) return name;
        }
    }
    return "";
}

void Contents::Note(const XmlNode& cid, const Subscription& of, Use use) {
    use.offset = SafePath(cid.GetProp("offset"));
    if (use.offset.empty() && !cid.GetProp("offset").empty() && cid.GetProp("offset") != "." &&
        cid.GetProp("offset") != "/")
        return job_.Lost("content", use.what, "an offset that leaves its archive");
    for (const XmlNode& file : Children(cid, "content-file")) {
        const std::string name = str::Trim(file.Str());
        const std::string path = SafePath(name).empty() ? "" : Find(name, cid.GetProp("path"), of);
        if (path.empty())
            job_.Lost("content", use.what, "the archive does not hold " + Line(name));
        else
            uses_[path].push_back(use);
    }
}

// ---- The second pass ----------------------------------------------------------------------------

void Contents::Fetch() {
    ArchiveReader reader(job_.options.archive, job_.budget);
    for (Entry entry; reader.Next(entry);) {
        const auto found = uses_.find(SafePath(entry.name));
        if (entry.type == 'f' && found != uses_.end()) Unpack(reader, found->first, found->second);
    }
    for (const auto& [file, uses] : uses_)
        for (const Use& use : uses)
            if (!use.found) job_.Lost("content", use.what, file + " holds nothing of it");
}

void Contents::Unpack(ArchiveReader& outer, const std::string& file, std::vector<Use>& uses) {
    Offsets offsets;
    for (Use& use : uses) offsets.emplace(use.offset, &use);
    ArchiveReader inner(outer.AsSource(), file, job_.budget);
    for (Entry entry; inner.Next(entry);) {
        const std::string path = SafePath(entry.name);
        if (path.empty() && entry.type != 'd') job_.unpacker.Refuse(file + ": " + entry.name);
        if (!path.empty()) Put(inner, entry, path, offsets);
    }
}

/// The longest offset that the path lies below counts: what lies in it belongs to nobody else.
void Contents::Put(ArchiveReader& reader, const Entry& entry, const std::string& path,
                   const Offsets& offsets) {
    std::string folder = path;
    auto found = offsets.end();
    while (found == offsets.end() && !folder.empty()) {
        const std::size_t slash = folder.rfind('/');
        folder.erase(slash == std::string::npos ? 0 : slash);
        found = offsets.find(folder);
    }
    std::string inner, inner_target;
    if (found != offsets.end() && Below(path, folder, inner)) {
        if (!Below(SafePath(entry.target), folder, inner_target)) inner_target.clear();
        return PutInto(reader, entry, *found->second, inner, inner_target);
    }
    if (entry.type != 'd') job_.Lost("content", path, "nothing in the description leads to it");
}

void Contents::PutInto(ArchiveReader& reader, const Entry& entry, Use& use,
                       const std::string& inner, const std::string& target) {
    if (use.kind == Kind::Mysql || use.kind == Kind::Postgresql) {
        if (entry.type == 'f' && !std::exchange(use.found, true)) PutDump(reader, use);
        return;
    }
    const bool mail = use.kind != Kind::Files;
    const std::string place = mail ? MailPlace(use, inner) : use.place + "/" + inner;
    const std::string linked = target.empty() ? ""
                               : mail         ? MailPlace(use, target)
                                              : use.place + "/" + target;
    use.found = true;
    if (!place.empty()) job_.unpacker.Put(reader, entry, place, linked);
}

/// "Maildir" is a folder of its own there; here the mailbox is the maildir.
std::string Contents::MailPlace(const Use& use, const std::string& inner) {
    std::string rest = inner, place = use.place;
    if (use.kind == Kind::DomainMail) place += "/" + str::GetWord(rest, '/');
    std::string below = rest;
    if (str::GetWord(below, '/') == "Maildir") rest = below;
    const auto parts = place.substr(sizeof "data/mail/" - 1);
    const std::size_t slash = parts.find('/');
    const auto box = boxes_.find(parts.substr(slash + 1) + "@" + parts.substr(0, slash));
    if (box != boxes_.end() && !std::exchange(box->second.filled, true))
        box->second.object.Param("path", place).Param("format", "maildir");
    return rest.empty() ? place : place + "/" + rest;
}

void Contents::PutDump(ArchiveReader& reader, Use& use) {
    const auto content = [&reader](std::string_view& bytes, uint64_t& offset) {
        return reader.Data(bytes, offset);
    };
    try {
        const auto dump = use.kind == Kind::Mysql ? job_.MysqlDump(use.place, content)
                                                  : job_.PostgresqlDump(use.place, content);
        if (!dump) return;
        dump->Describe(use.object);
        job_.Carried("database", use.place);
    } catch (const EntryError& e) {
        job_.Lost("database", use.place, e.what());
    }
}

}  // namespace plesk
