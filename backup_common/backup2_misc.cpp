#include "backup_common/backup2_misc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_client.h"
#include "vel/vel_date.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/fetch_file.h"
#include "vel/vel_user.h"

#include "backup_common/backup2_qortar.h"
#include "backup_common/backup2_storage.h"

namespace backup2 {
namespace {

const vel_log::Module logger("backup");

constexpr char kSourceFile[] = "backup2_misc.cpp";
// Part of the trace line's format, so that it stays what log readers look for.
constexpr char kTraceFile[] = "backup2_misc";
constexpr int kTraceLinkLine = 112;
constexpr int kTraceUidLine = 318;
constexpr int kTraceRemovedLine = 322;

constexpr char kCodeSeparator[] = "||";
constexpr char kTreePrefix[] = "t_";

constexpr char kPlainExt[] = ".tgz";
constexpr char kEncryptedExt[] = ".tgz.aes";
constexpr char kInfoExt[] = ".info";
constexpr std::size_t kShortestName = 6;  // "x.1.dar" without its number is no backup's name

constexpr int kNoFollow = 2;  // vel_file's flag: look at links themselves

}  // namespace

// ---- File-name encodings ------------------------------------------------------------------------

namespace {

constexpr char kEscaped[] = "\t\n\f\v\r\\";
constexpr char kLetters[] = "tnfvr\\";

/// The byte that stands for `from[i]` in `to`, or 0.
char Translate(char c, const std::string& from, const std::string& to) {
    const auto at = from.find(c);
    return at == std::string::npos ? '\0' : to[at];
}

/// Bytes of the UTF-8 sequence that `lead` announces, when it is one of three and more; else 0.
std::size_t LongSequence(unsigned char lead) {
    if ((lead & 0xF0) == 0xE0) return 3;
    if ((lead & 0xF8) == 0xF0) return 4;
    if ((lead & 0xFC) == 0xF8) return 5;
    if ((lead & 0xFE) == 0xFC) return 6;
    return 0;
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < 32; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

/// The versions of ssh that these systems bring refuse a key with CR LF.
bool WantsPlainLineBreaks() {
    constexpr unsigned kDebian = 0x20201, kUbuntu = 0x20202, kRedHatFamily = 0x20100;
    const unsigned os = vel_env::GetOsType();
    const std::string version = vel_env::GetOsVersion();
    if (os == kDebian && str::StartsWith(version, "10")) return true;
    if (os == kUbuntu && str::StartsWith(version, "20")) return true;
    return (os & kRedHatFamily) == kRedHatFamily && str::StartsWith(version, "8");
}

}  // namespace

std::string EncodeFileName(std::string name) {
    for (std::size_t at = 0; (at = name.find_first_of(kEscaped, at)) != std::string::npos;
         at += 2) {
        name[at] = Translate(name[at], kEscaped, kLetters);
        name.insert(at, 1, '\\');
    }
    return name;
}

std::string DecodeFileName(std::string name) {
    for (std::size_t at = 0; (at = name.find('\\', at)) != std::string::npos; ++at) {
        const char c = at + 1 < name.size() ? Translate(name[at + 1], kLetters, kEscaped) : '\0';
        if (c == '\0') throw std::runtime_error("Bad encoded filename '" + name + "'");
        name.replace(at, 2, 1, c);
    }
    return name;
}

std::pair<std::string, std::string> EncodeBadFileName(const std::string& name) {
    std::string codes, printable;
    bool bad = false;
    for (const char c : name) {
        str::Append(codes, str::Str(int{static_cast<unsigned char>(c)}), kCodeSeparator);
        printable += IsControl(c) ? '?' : c;
        bad = bad || IsControl(c);
    }
    return {bad ? codes : std::string(), printable};
}

std::string DecodeBadFileName(const std::string& codes) {
    if (codes.find(kCodeSeparator) == std::string::npos) return codes;
    std::string name, rest = codes;
    while (!rest.empty()) {
        name += static_cast<char>(str::Int(str::GetWord(rest, kCodeSeparator)) & 0xFF);
    }
    return name;
}

std::string ReplaceBadChars(const std::string& text) {
    std::string clean;
    clean.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const char c = text[at];
        const std::size_t sequence = LongSequence(static_cast<unsigned char>(c));
        const bool control = IsControl(c) && c != '\t' && c != '\n' && c != '\r';
        clean += control || sequence > 0 ? '?' : c;
        at += sequence > 0 ? sequence : 1;
    }
    return clean;
}

std::string TreeEncode(const std::string& value) {
    return value.empty() ? value : kTreePrefix + str::hex::Encode(value);
}

std::string TreeDecode(const std::string& value) {
    if (!str::StartsWith(value, kTreePrefix)) return value;
    const std::string digits = value.substr(sizeof(kTreePrefix) - 1);
    if (digits.find_first_not_of("0123456789ABCDEFabcdef") != std::string::npos) return value;
    return str::hex::Decode(digits);
}

std::string EscapeKey(std::string key) {
    str::inpl::Replace(key, "\r\n", "#rn");
    str::inpl::Replace(key, "\n", "#rn");
    str::inpl::Replace(key, " ", "#ws");
    return key;
}

std::string UnescapeKey(std::string key) {
    str::inpl::Replace(key, "#rn", WantsPlainLineBreaks() ? "\n" : "\r\n");
    str::inpl::Replace(key, "#ws", " ");
    return key;
}

// ---- Names of backups and slices ----------------------------------------------------------------

namespace {

[[noreturn]] void BadName(int line, const char* func) {
    vel_err::AssertError::Raise(kSourceFile, line, func, "Bad backup filename");
}

}  // namespace

std::string DarStripSliceNumber(const std::string& name) {
    if (name.size() < kShortestName) BadName(__LINE__, __func__);
    const auto dot = name.rfind('.', name.size() - 5);  // 5: a dot before ".dar" does not count
    if (dot == std::string::npos) BadName(__LINE__, __func__);
    return name.substr(0, dot);
}

std::string StripSliceNumber(const std::string& name) {
    if (str::EndsWith(name, kPlainExt)) return name.substr(0, name.find(kPlainExt));
    if (str::EndsWith(name, kEncryptedExt)) return name.substr(0, name.find(kEncryptedExt));
    if (str::EndsWith(name, ".dar")) return DarStripSliceNumber(name);
    const auto end = name.rfind(".tgz.");
    if (end == std::string::npos || end < kShortestName) BadName(__LINE__, __func__);
    return name.substr(0, end);
}

std::string GetDate(const std::string& name) {
    if (str::StartsWith(name, "custom")) return "custom";
    const bool marked = name.empty() || !IsDigit(name.front());
    return name.substr(marked ? 1 : 0, 10);
}

std::string GetUserName(std::string name) {
    str::GetWord(name, '.');
    while (!name.empty()) {
        const std::string ext = "." + str::RGetWord(name, ".");
        if (ext == kPlainExt || ext == kInfoExt) break;
    }
    return str::GetWord(name, '#');
}

std::string GetName(const BackupToken& token, const std::string& path) {
    std::string name = vel_file::Name(path);
    if (str::EndsWith(name, kInfoExt)) return name;
    const auto encrypted = name.rfind(kEncryptedExt);
    const auto plain = name.rfind(kPlainExt);
    if (token.IsEncrypted() && encrypted == std::string::npos && plain != std::string::npos) {
        name.insert(plain + 4, ".aes");
    } else if (!token.IsEncrypted() && encrypted != std::string::npos) {
        name.erase(encrypted + 4, 4);
    }
    return name;
}

std::string GetExtByToken(const BackupToken& token) {
    return token.IsEncrypted() ? kEncryptedExt : kPlainExt;
}

std::string GetExtByInfo(const std::map<std::string, std::string>& info) {
    const auto last = info.find("last-slice");
    const bool encrypted =
        info.count("key_hash") > 0 || (last != info.end() && IsEncrypted(last->second));
    return encrypted ? kEncryptedExt : kPlainExt;
}

bool IsEncrypted(const std::string& name) {
    if (name.empty() || str::EndsWith(name, kInfoExt)) return false;
    std::string rest = name;
    std::string part = str::RGetWord(rest, ".");
    if (part.find("part") != std::string::npos) part = str::RGetWord(rest, ".");
    return part == "aes";
}

std::string GetPath(const std::string& path) {
    const std::string file = vel_file::Name(vel_file::GoodPath(path));
    const std::string date = str::StartsWith(file, "C") ? "custom" : GetDate(file);
    return vel_file::ConcatPath(GetUserName(file), date, file);
}

std::string ConcatPath(const std::string& a, const std::string& b) {
    std::string joined = a;
    str::Append(joined, b, "//");
    return joined;
}

std::string TruncateName(const std::string& name) { return name.substr(0, 32); }

bool IsAdminData(const std::string& path) { return str::EndsWith(path, "var/backup/qorvel"); }

// ---- Local files of a run -----------------------------------------------------------------------

std::string MkLocalDir(const std::string& root, const std::string& user, const std::string& name) {
    const std::string dir = IsAdminData(root) ? vel_file::ConcatPath(root, user, name)
                                              : vel_file::ConcatPath(root, name);
    const uid_t owner = vel_user::Exists(user) ? vel_user::Uid(user) : 0;
    vel_file::MkDir(dir, vel_file::Attrs(0440, owner, 0));
    return dir;
}

std::string GetLocalBackupPath(const std::string& path) {
    const std::string dir = vel_file::SplitPath(path).dir;
    if (dir.empty()) return path;
    for (vel_file::Dir entries(dir, kNoFollow); entries.Next();) {
        if (entries.HasExt(kInfoExt)) return dir;
    }
    return path;
}

void GetLocalTokenNodes(const BackupToken&, std::map<std::string, std::string>&) {}

void CopyFullIndexes(const std::string&, const std::string&, const std::string&) {}

std::string ParseErrorFiles(const std::string& text) {
    std::vector<std::string> lines;
    str::Split(text, "\n", lines);
    std::string names;
    for (std::string& line : lines) {
        if (!str::StartsWith(line, "Type:")) str::Append(names, str::GetWord(line, '\t'), "\n");
    }
    return names;
}

Lock::Lock(const std::string& dir) {
    if (!vel_file::Exists(dir)) return;
    marker_ = vel_file::ConcatPath(dir, ".backup.inuse");
    lock_.DoLock(marker_, true);
}

Lock::~Lock() {
    if (marker_.empty()) return;
    try {
        // Somebody else's marker in the place of ours says that the directory is still in use.
        if (lock_.Owns()) vel_file::RemoveFile(marker_);
    } catch (const std::exception& e) {
        logger.Write(4, "Cannot remove '%s': %s", marker_, e.what());
    }
    lock_.Release();
}

void Link(const std::string& from, const std::string& to) {
    logger.Write(9, "%s:%d Copy from '%s' to '%s'", kTraceFile, kTraceLinkLine, from, to);
    // Whatever keeps the link from being made (another file system, an existing name), a copy does.
    if (::link(from.c_str(), to.c_str()) != 0) vel_file::CopyFile(from, to);
}

void CheckLinkPath(const std::string& path) {
    if (!vel_file::Info(path, false).IsLink()) return;
    vel_err::AssertError::Raise(kSourceFile, __LINE__, __func__, "Path is symlink_link");
}

void WriteSystemFile(const std::string& path, const std::string& content) {
    vel_file::Write(path, content);
    timespec times[2]{};
    times[0].tv_sec = times[1].tv_sec = ::time(nullptr) - 3600;
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        vel_err::RaiseErrno("utimensat", path, errno);
    }
}

void CreateAttemptsFile(const std::string& path) { vel_file::Write(path + ".attempts", ""); }

std::string GetReportFile(const std::string& id) {
    return "var/backup2_restore_report." + id + ".xml";
}

// ---- Info and index files -----------------------------------------------------------------------

namespace {

bool IsHidden(const vel_file::Dir& entry) { return entry.NameView().starts_with('.'); }

bool IsDateDirectory(const vel_file::Dir& entry) {
    return entry.IsDir() && (entry.NameView() == "custom" || test::Date(entry.NameView()));
}

/// Which info files GetInfoFiles wants, and where they go.
struct InfoSearch {
    std::list<std::string>& out;
    bool admin_data;
    bool flag;
    const std::string& user;
    const std::string& date;

    void Take(const vel_file::Dir& entry) {
        if (CheckCondition(entry, user, date, flag)) out.push_back(entry.Path());
    }

    void TakeAll(const vel_file::Dir& folder) {
        auto entries = Enter(folder);
        while (entries && entries->Next()) Take(*entries);
    }

    void Descend(const vel_file::Dir& folder) {
        auto entries = Enter(folder);
        while (entries && entries->Next()) {
            if (!IsDateDirectory(*entries)) {
                if (!admin_data) Take(*entries);
            } else if (date.empty() || entries->NameView() == date) {
                TakeAll(*entries);
            }
        }
    }

    /// Nothing for a folder that was removed meanwhile.
    static std::optional<vel_file::Dir> Enter(const vel_file::Dir& folder) try {
        return folder.Enter();
    } catch (const vel_err::Error&) {
        if (vel_file::Exists(folder.Path())) throw;
        return std::nullopt;
    }
};

}  // namespace

std::string GetServiceFile(const std::string& dir, const std::string& name, const std::string& date,
                           const std::string& ext) {
    const std::string file = date + "." + name + ext;
    std::string path = ConcatPath(dir, file);
    if (!dir.empty() && !vel_file::Exists(path)) {
        std::string owner = name;
        const std::string user = IsAdminData(dir) ? str::GetWord(owner, '#') : "";
        path = ConcatPath(dir, vel_file::ConcatPath(user, date, file));
    }
    CheckLinkPath(path);
    return path;
}

std::string GetInfoFile(const std::string& dir, const std::string& name, const std::string& date) {
    return GetServiceFile(dir, name, date, kInfoExt);
}

std::string GetIndexFile(const std::string& dir, const std::string& name, const std::string& date) {
    return GetServiceFile(dir, name, date, kPlainExt);
}

std::map<std::string, std::string> GetInfo(const std::string& path) {
    logger.Write(8, "%s info_file = '%s'", "GetInfo", path);
    CheckLinkPath(path);
    std::map<std::string, std::string> info;
    str::Split(vel_file::ReadE(path), "\n", info);
    return info;
}

std::string GetLastSliceLocalPath(const std::string& path) { return GetInfo(path)["last-slice"]; }

bool IsInfoFile(const vel_file::Dir& entry) { return entry.HasExt(kInfoExt) && entry.IsFile(); }

bool CheckCondition(const vel_file::Dir& entry, const std::string& user,
                    const std::string& date_prefix, bool) {
    if (!IsInfoFile(entry) || !entry.NameView().starts_with(date_prefix)) return false;
    return user.empty() || GetUserName(entry.Name()) == user;
}

void GetInfoFiles(std::list<std::string>& out, const std::string& dir, bool flag,
                  const std::string& user, const std::string& date) {
    out.clear();
    InfoSearch search{out, IsAdminData(dir), flag, user, date};
    for (vel_file::Dir entries(dir, kNoFollow); entries.Next();) {
        if (IsHidden(entries)) continue;
        if (entries.IsDir()) {
            search.Descend(entries);
        } else {
            search.Take(entries);
        }
    }
}

void DelBackupOnError(const std::string& dir, const std::string& name, const std::string& date) {
    try {
        const std::string info_file = GetInfoFile(dir, name, date);
        vel_proc::Execute copy_tool("sbin/backup2_cp --delete " + vel_proc::Escape(info_file), 0);
        const std::string output = copy_tool.Str();
        const int code = copy_tool.Result();
        if (code != 0) logger.Write(4, "Cant delete error backup. Code: %d. Str: %s", code, output);
    } catch (const std::exception& e) {
        // The backup's own failure is what the caller reports; this one must not take its place.
        logger.Write(4, "Cant delete error backup. Code: %d. Str: %s", -1, e.what());
    }
}

// ---- Panels and their answers -------------------------------------------------------------------

namespace {

constexpr std::size_t kKeyBytes = 16;
constexpr char kDownload[] = "/velcgi/backup2_download";
constexpr std::size_t kMaxCheckAnswer = 1024;
constexpr long kCheckSeconds = 86400;

/// A panel that does not know the question answers something else.
void LogStatus(std::istream& answer) try {
    const vel_xml::XmlNode status = vel_xml::Xml(answer).GetNode("/doc/status");
    if (!status) throw vel_err::Error("xml", "no_status");
    if (status.Str() != "ok") logger.Write(4, "Remote call cgi return error: '%s'", status.Str());
} catch (const std::exception&) {
    logger.Write(4, "Remote panel has old version");
}

/// Only for the log: the download itself tells whether it can be had.
void CheckDownload(const std::string& address, const std::string& session) try {
    vel_rpc::HttpQuery query;
    query.SetMaxSize(kMaxCheckAnswer);
    query.SetTimeout(kCheckSeconds);
    query.AcceptAnyResponse();
    std::stringstream answer;
    query.Post(address, "nodownload=on&auth=" + str::url::Encode(session), answer);
    LogStatus(answer);
} catch (const std::exception& e) {
    logger.Write(4, "Remote call cgi failed: '%s'", e.what());
}

/// Scheme and host of a panel's address.
std::string BaseOf(std::string url) {
    const std::string scheme = str::GetWord(url, "://");
    return scheme + "://" + str::GetWord(url, '/');
}

}  // namespace

std::string Authorize(const std::string& url, const std::string& admin, std::string password,
                      const std::string& user) {
    vel_client::Remote panel(url);
    panel.AddParam("username", admin);
    panel.AddParam("password", password);
    const vel_xml::XmlNode admin_auth = panel.Query("func=auth").GetNode("/doc/auth[@id]");
    if (!admin_auth) {
        logger.Write(4, "Cant authorize admin: '%s'", admin);
        return "";
    }
    panel.ClearParams();
    panel.AddParam("auth", admin_auth.GetProp("id"));
    panel.AddParam("username", user);
    panel.AddParam("key", str::hex::Encode(str::Random(kKeyBytes)));
    if (!panel.Query("func=session.newkey").GetNode("/doc/ok")) {
        logger.Write(4, "Cant authorize user: '%s'", user);
        return "";
    }
    panel.AddParam("checkcookie", "no");
    const vel_xml::XmlNode user_auth = panel.Query("func=auth").GetNode("/doc/auth[@id]");
    if (!user_auth) logger.Write(4, "User auth node empty");
    return user_auth.GetProp("id");
}

std::string DecorateAnswer(const std::string& result) {
    const vel_xml::Xml answer;
    answer.GetRoot().AppendChild("status", result == "ok" ? result : "ERR " + result);
    return answer.Str(true);
}

void CheckPassword(const BackupToken& token, const std::string& user, const std::string& name,
                   bool own) {
    const std::string dir =
        own ? vel_file::ConcatPath("var/backup/qorvel.private", user) : "var/backup/qorvel";
    const auto info = GetInfo(GetInfoFile(dir, user, name));
    const auto hash = info.find("key_hash");
    if (hash != info.end() && hash->second != token.Hash())
        throw vel_err::Error("backup2_invalid_password");
}

std::map<std::string, std::string> FillDownloadError(const std::string& what) {
    logger.Write(8, "%s what = '%s'", "FillDownloadError", what);
    const bool password = what == vel_err::Error("backup2_invalid_password").what();
    return {{"func", "backup2.download"},
            {"sok", "ok"},
            {"out", "html"},
            {"error_type", password ? "backup2_invalid_password" : "backup2_create_download"}};
}

bool FetchRemoteManager(const std::string& url, const std::string& admin, std::string password,
                        const std::string& user, const std::string& path) {
    const std::string checked = Authorize(url, admin, password, user);
    if (checked.empty()) return false;
    const std::string address = BaseOf(url) + kDownload;
    CheckDownload(address, checked);
    const std::string session = Authorize(url, admin, password, user);
    if (session.empty()) return false;
    if (!vel_rpc::FetchFile(address + "?auth=" + session, path, 0))
        throw vel_err::Error("backup2_admin_import", "fetch_failed", url);
    return true;
}

// ---- Restore reports ----------------------------------------------------------------------------

namespace {

/// The report as it is to be continued.
vel_xml::Xml OpenReport(const std::string& report) {
    vel_xml::Xml xml;
    const std::string path = GetReportFile(report);
    if (vel_file::Exists(path)) xml.LoadFromFile(path);
    if (xml.GetRoot().GetProp("viewed") == "yes") {
        xml.GetRoot().DropProp("viewed");
        xml.RemoveNodes("/doc/*");
    }
    return xml;
}

vel_xml::XmlNode AddEvent(const vel_xml::Xml& xml, const std::string& name,
                          const std::string& owner, const std::string& type) {
    return xml.GetRoot()
        .AppendChild("elem")
        .SetProp("date", vel_date::DateTime().AsDateTime())
        .SetProp("name", name)
        .SetProp("owner", owner)
        .SetProp("type", type);
}

/// The parser takes an ampersand that begins nothing for itself; in a document it may not stand.
bool HasStrayAmpersand(const std::string& text) {
    static const std::regex reference("^&(lt|gt|amp|quot|apos|#[0-9]{1,7}|#x[0-9A-Fa-f]{1,6});");
    constexpr std::ptrdiff_t kLongest = 10;
    for (auto at = std::find(text.begin(), text.end(), '&'); at != text.end();
         at = std::find(at + 1, text.end(), '&')) {
        const auto end = at + std::min(kLongest, text.end() - at);
        if (!std::regex_search(at, end, reference)) return true;
    }
    return false;
}

/// The text as it reads when it is taken for markup; nothing when it is none.
std::optional<std::string> ParseMarkup(const std::string& text) try {
    if (HasStrayAmpersand(text)) return std::nullopt;
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    return vel_xml::Xml::FromString(head + "<doc>" + text + "</doc>").GetNode("/doc").Str();
} catch (const vel_err::Error&) {
    return std::nullopt;
}

/// Words of the restoring programs that name no file.
bool NamesNoFile(const std::string& line) {
    static const char* const kWords[] = {"data/mod-tmp", "Fail to decode", "scp failed",
                                         "std::exception"};
    return std::find(std::begin(kWords), std::end(kWords), line) != std::end(kWords);
}

void AddFiles(const vel_xml::Xml& xml, const std::string& owner, std::string lines) {
    while (!lines.empty()) {
        const std::string line = str::GetWord(lines, '\n');
        if (!NamesNoFile(line)) AddEvent(xml, vel_file::SplitPath(line).tail, owner, "file");
    }
}

}  // namespace

void SaveDataReport(const std::string& name, const std::string& owner, const std::string& report,
                    const std::string& type, const vel_xml::Xml& answer) {
    const vel_xml::Xml xml = OpenReport(report);
    const vel_xml::XmlNode error = answer.GetNode("/doc/error");
    if (!error) return;
    AddEvent(xml, name, owner, type).AppendChild(error);
    xml.Save(GetReportFile(report), false);
}

void SaveFileReport(const std::string& owner, const std::string& report, const std::string& output,
                    int code) {
    const vel_xml::Xml xml = OpenReport(report);
    const std::string clean = ReplaceBadChars(output);
    const std::optional<std::string> markup = ParseMarkup(clean);
    const std::string parsed = markup.value_or(clean);
    if (clean != output || markup != clean) xml.GetRoot().SetProp("badchars", "yes");
    if (output.find("Database") != std::string::npos) {
        AddEvent(xml, parsed, owner, "db").SetProp("code", str::Str(code));
    } else if (code != 0) {
        AddEvent(xml, parsed, owner, "get_data").SetProp("code", str::Str(code));
    } else {
        AddFiles(xml, owner, parsed);
    }
    xml.Save(GetReportFile(report), false);
}

void FinalizeReport(const std::string& report, const std::string& type) {
    const std::string path = GetReportFile(report);
    if (!vel_file::Exists(path)) return;
    vel_xml::Xml xml;
    xml.LoadFromFile(path);
    xml.GetRoot().SetProp("finalized", "yes").SetProp("type", type);
    xml.Save(path, false);
}

// ---- Backups that nobody needs any more ---------------------------------------------------------

namespace {

vel_proc::Execute DeletionOf(const std::string& info_file) {
    return vel_proc::Execute("sbin/backup2_cp --delete " + vel_proc::Escape(info_file) + " --force",
                             0);
}

}  // namespace

void CheckDeletedUser(const std::string& user, const std::string& name, const std::string& uid) {
    if (user == "root") return;
    vel_client::Local panel("qorvel", "backup2");
    panel.WaitLocked(true);
    std::string current;
    try {
        current = panel.Query("func=user.edit&elid=" + str::url::Encode(user)).value("uid");
    } catch (const vel_err::Error& e) {
        if (e.type() != "missed") throw;
    }
    if (current == uid) return;
    logger.Write(9, "%s:%d User uid mismatch. Initial uid: %s. Current: %s", kSourceFile,
                 kTraceUidLine, uid, current);
    const std::string local_dir = panel.Query("func=backup2.settings").value("local_dir");
    vel_proc::Execute copy_tool = DeletionOf(GetInfoFile(local_dir, user, name));
    copy_tool.UnsetEnv("BACKUP_TOKEN");  // the storage is the one that the panel's settings name
    logger.Write(9, "%s:%d Delete backup for removed user %s", kSourceFile, kTraceRemovedLine,
                 user);
    const std::string output = copy_tool.Str();
    if (const int code = copy_tool.Result(); code != 0)
        logger.Write(4, "Cant delete backup for removed user %d. Output: %s", code, output);
}

void DeleteAfterImport(const Settings& settings, const std::string& user, const std::string& name) {
    const std::string info_file = GetInfoFile(settings.local_dir(), user, name);
    logger.Write(5, "Backup is disabled. Delete backup after import %s", info_file);
    const BackupToken token(settings.params().GetNode("/doc/storage").Str());
    vel_proc::Execute copy_tool = DeletionOf(info_file);
    copy_tool.SetEnv("BACKUP_TOKEN", token.Str());
    const std::string output = copy_tool.Str();
    if (const int code = copy_tool.Result(); code != 0)
        logger.Write(4, "Cant delete backup after import. %d. Output: %s", code, output);
}

// ---- External converters ------------------------------------------------------------------------

std::map<std::string, std::string> GetExternalConvertors() {
    return {{"cPanel", "sbin/backup2_cpanel_conv"}, {"Plesk", "sbin/backup2_plesk_conv"}};
}

std::vector<std::string> Cmdline2Vector(const std::string& command_line) {
    std::vector<std::string> words;
    std::string rest = command_line;
    while (!rest.empty()) {
        const std::string word = str::GetWord(rest, ' ');
        if (!word.empty()) words.push_back(str::Trim(word));
    }
    return words;
}

}  // namespace backup2
