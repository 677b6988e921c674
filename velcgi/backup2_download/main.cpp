/// backup2_download: hands a user his newest backup, as one plain archive, over the panel's door.
#include <filesystem>
#include <iostream>
#include <memory>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

#include "velcgi/backup2_download/content.h"
#include "velcgi/backup2_download/request.h"

namespace backup2_download {
namespace {

const vel_log::Module logger("backup2_download");

constexpr char kPanel[] = "qorvel", kClient[] = "backup2_download";
constexpr char kUsualDir[] = "var/backup/qorvel";
const std::string kWrongPassword = "backup2_invalid_password";

// ---- Whose, and what ----------------------------------------------------------------------------

struct Owner {
    std::string name, uid;
};

/// The session is used up by this, whatever becomes of the request.
Owner TakeSession(const std::string& id) {
    if (id.empty()) throw Refusal(403, "auth");
    try {
        const auto answer =
            vel_client::Local(kPanel, kClient).Query("func=session.take&auth=?", id);
        return {answer.value("user"), answer.value("uid")};
    } catch (const vel_err::Error& e) {
        if (e.type() == "auth") throw Refusal(403, "auth");
        if (e.type() == "locked") throw Refusal(503, "locked");
        throw;
    }
}

void CheckKey(const Archive& archive, const backup2::BackupToken& token) {
    const bool without = archive.encrypted && !token.IsEncrypted();
    if (without || (!archive.key_hash.empty() && archive.key_hash != token.Hash()))
        throw vel_err::Error(kWrongPassword);
}

/// The library looks in the usual place only; others are held to the same.
void CheckPasswords(const Newest& newest, const std::string& owner, const std::string& local_dir,
                    const backup2::BackupToken& token) {
    const auto usual = (std::filesystem::current_path() / kUsualDir).string();
    if (vel_file::GoodPath(local_dir) == usual)
        backup2::CheckPassword(token, owner, newest.own.date, false);
    CheckKey(newest.own, token);
    if (newest.base) CheckKey(*newest.base, token);
}

/// Keeps limits and deletions away from a backup that is being read. Null when somebody else does.
std::unique_ptr<backup2::Lock> Protect(const Archive& archive) try {
    return std::make_unique<backup2::Lock>(vel_file::SplitPath(archive.info_path).dir);
} catch (const vel_err::Error& e) {
    if (e.type() != "lock") throw;
    return nullptr;
}

std::unique_ptr<Content> MakeContent(const Newest& newest, const std::string& part,
                                     const Stored& stored) {
    if (part == "listing") return MakeListing(newest.own, stored);
    if (part == "2" && !newest.base) throw Refusal(404, "part");
    return MakeArchive(part == "1" && newest.base ? *newest.base : newest.own, stored);
}

// ---- The answer ---------------------------------------------------------------------------------

/// A name that needs no quoting anywhere.
std::string SafeName(std::string name) {
    const std::string safe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    for (char& c : name)
        if (safe.find(c) == std::string::npos) c = '_';
    return name;
}

void SendContent(const Content& content, const Request& request, Answer& answer) {
    const auto span = ChooseSpan(request.range, request.if_range, content.Tag(), content.Size());
    const std::string size = std::to_string(content.Size());
    std::map<std::string, std::string> headers = {
        {"Content-Type", "application/gzip"},
        {"Accept-Ranges", "bytes"},
        {"ETag", content.Tag()},
        {"Content-Length", span ? std::to_string(span->to - span->from) : "0"}};
    if (!span) {
        headers["Content-Range"] = "bytes */" + size;
        answer.Promise(416, headers);
        return answer.Begin();
    }
    headers["Content-Disposition"] = "attachment; filename=\"" + SafeName(content.Name()) + "\"";
    if (span->partial)
        headers["Content-Range"] =
            "bytes " + std::to_string(span->from) + "-" + std::to_string(span->to - 1) + "/" + size;
    answer.Promise(span->partial ? 206 : 200, headers);
    if (request.method == "HEAD") return answer.Begin();
    content.Send(*span, answer);
}

void Serve(const Request& request, Answer& answer) {
    const Owner owner = TakeSession(request.session);
    const auto settings = vel_client::Local(kPanel, kClient).Query("func=backup2.settings");
    const std::string local_dir = settings.value("local_dir");
    const backup2::BackupToken token(settings.value("storage"));
    const Newest newest = FindNewest(local_dir, owner.name, owner.uid);
    const auto own_in_use = Protect(newest.own);
    const auto base_in_use = newest.base ? Protect(*newest.base) : nullptr;
    CheckPasswords(newest, owner.name, local_dir, token);
    const Stored stored(token);
    const auto content = MakeContent(newest, request.part, stored);
    content->Check();
    logger.Write(5, "%s of %s is downloaded", content->Name(), owner.name);
    if (request.check_only) return answer.Send(200, "text/xml", backup2::DecorateAnswer("ok"));
    SendContent(*content, request, answer);
}

/// `word` for the client, `what` for the log: it may name files and servers.
int Refuse(const Request& request, Answer& answer, int status, const std::string& word,
           const std::string& what) {
    logger.Write(4, "No download: %s", what);
    if (answer.Begun()) return vel_tool::kFailed;  // the panel cuts the connection
    if (request.check_only) {
        answer.Send(200, "text/xml", backup2::DecorateAnswer(word));
    } else {
        answer.SendError(status, word, what);
    }
    return vel_tool::kFailed;
}

int Run(const std::vector<std::string>&) {
    if (vel_env::GetEnv("REQUEST_METHOD").empty())
        throw vel_tool::UsageError(
            "started by the panel, for requests of /velcgi/backup2_download");
    Request request;
    Answer answer(vel_env::GetEnv("REQUEST_METHOD") != "HEAD");
    try {
        request.Read();
        Serve(request, answer);
        return vel_tool::kDone;
    } catch (const Refusal& e) {
        return Refuse(request, answer, e.status, e.what(), e.what());
    } catch (const vel_err::Error& e) {
        const bool password = e.type() == kWrongPassword;
        return Refuse(request, answer, password ? 409 : 502, password ? e.type() : "failed",
                      e.what());
    } catch (const std::exception& e) {
        return Refuse(request, answer, 502, "failed", e.what());
    }
}

}  // namespace
}  // namespace backup2_download

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, backup2_download::Run); }
