#include <sstream>

#include "vel/str.h"
#include "vel/vel_rpc/dropbox.h"
#include "vel/vel_rpc/google_drive.h"
#include "vel/vel_rpc/s3.h"
#include "vel/vel_rpc/yandex.h"

#include "backup_common/backup2_misc.h"

#include "tests/contract/storage_contract.h"
#include "tests/support/server.h"
#include "tests/support/work_dir.h"

namespace {

class LocalSite final : public Site {
public:
    backup2::BackupToken Token() const override {
        return backup2::BackupToken("type=local;path=" + base_);
    }
    std::string Stored(const std::string& name) const override {
        return ReadFile(base_ + "/" + name);
    }

private:
    TempDir dir_;
    const std::string base_ = dir_ / "a b'c";
};

/// One server for all cases of a run.
Server& Sshd() {
    static Server server("sshd");
    return server;
}

/// A folder behind sshd. The keys are of both formats.
class SshSite : public Site {
public:
    explicit SshSite(std::string host) : host_(std::move(host)) {}
    ~SshSite() override { std::filesystem::remove_all(base_); }
    std::string Stored(const std::string& name) const override {
        return ReadFile(base_ + "/" + name);
    }

protected:
    const std::string host_, base_ = Sshd()["root"] + "/a b'c";
    const WorkDir work_;  // the key file lies in its tmp
    const EnvGuard path_{"PATH", Sshd()["bin"] + ":" + ::getenv("PATH")};
};

class SftpSite final : public SshSite {
public:
    SftpSite(std::string host, const std::string& key)
        : SshSite(std::move(host)), key_(backup2::EscapeKey(ReadFile(Sshd()[key]))) {}
    backup2::BackupToken Token() const override {
        return backup2::BackupToken("type=sftp;url=" + host_ + ";port=" + Sshd()["port"] +
                                    ";key=" + key_ + ";path=" + base_);
    }

private:
    const std::string key_;
};

class NodeSite final : public SshSite {
public:
    using SshSite::SshSite;
    backup2::BackupToken Token() const override {
        return backup2::BackupToken("type=node;ip=" + host_ + ";port=" + Sshd()["port"] +
                                    ";key_path=" + Sshd()["key"] + ";path=" + base_);
    }
    /// The node itself sees its folder as a local one.
    backup2::BackupToken UploadToken() const override {
        return backup2::BackupToken("type=local;path=" + base_);
    }
};

/// A folder behind an FTP server.
class FtpSite final : public Site {
public:
    /// `scheme`: before the address, "ftpes://" wants TLS.
    FtpSite(Server& server, const std::string& scheme, const std::string& mode)
        : token_("type=ftp;url=" + scheme + server["host"] + ";port=" + server["port"] +
                 ";username=" + server["user"] + ";password=" +
                 str::base64::Encode(server["password"]) + ";mode=" + mode + ";path=/a b'c"),
          base_(server["root"] + "/a b'c"),
          authority_("BACKUP2_CA_FILE", server["ca"]) {}
    ~FtpSite() override { std::filesystem::remove_all(base_); }
    backup2::BackupToken Token() const override { return backup2::BackupToken(token_); }
    std::string Stored(const std::string& name) const override {
        return ReadFile(base_ + "/" + name);
    }

private:
    const std::string token_, base_;
    const EnvGuard authority_;
};

std::unique_ptr<Site> StartActiveFtp() {
    static Server server("pureftpd");
    return std::make_unique<FtpSite>(server, "", "active");
}

std::unique_ptr<Site> StartPassiveFtpWithTls() {
    static Server server("proftpd", {{"FTP_TLS", "2"}});
    return std::make_unique<FtpSite>(server, "ftpes://", "");
}

/// A cloud's stand-in, or a real S3 server; what is stored is read by the client itself.
template <class Client>
class CloudSite final : public Site {
public:
    CloudSite(Server& server, std::string type)
        : credential_(CredentialFor(server)), type_(std::move(type)) {}
    ~CloudSite() override { Client(credential_).RmDir(base_ + "/"); }
    backup2::BackupToken Token() const override {
        return backup2::BackupToken("type=" + type_ + ";token=" + credential_ + ";path=" + base_);
    }
    std::string Stored(const std::string& name) const override {
        std::ostringstream bytes;
        Client(credential_).Get(base_ + "/" + name, bytes);
        return bytes.str();
    }

private:
    static std::string CredentialFor(Server& server) {
        if (!server["credential"].empty()) return server["credential"];
        std::string json;
        for (const std::string name :
             {"api", "access_token", "refresh_token", "client_id", "client_secret"}) {
            json += (json.empty() ? "{\"" : ",\"") + name + "\":\"" + server[name] + "\"";
        }
        return str::base64::Encode(json + "}");
    }

    const std::string credential_, type_, base_ = "/a b'c";
};

template <class Client>
std::function<std::unique_ptr<Site>()> StartCloud(const std::string& type,
                                                  const std::string& script) {
    return [type, script]() -> std::unique_ptr<Site> {
        static Server server(script);  // one for each client
        return std::make_unique<CloudSite<Client>>(server, type);
    };
}

template <class Kind>
std::unique_ptr<Site> Start() {
    return std::make_unique<Kind>();
}

template <class Kind, class... Arguments>
std::function<std::unique_ptr<Site>()> StartWith(Arguments... arguments) {
    return [arguments...] { return std::make_unique<Kind>(arguments...); };
}

constexpr char kPassword[] = "canary pass'word$(x)";
constexpr char kNotUtf8[] = "\xff", kControls[] = "\n\x01", kNotForPureFtpd[] = "\n\x01\\";
// Listings are lines, and scp reads the path of a download as a pattern.
constexpr char kNotThroughLs[] = "\n", kNotThroughScp[] = "\n*?[]\\";

}  // namespace

std::vector<Backend> Backends() {
    return {
        {.name = "local",
         .start = Start<LocalSite>,
         .password = "",
         .delete_of_missing_throws = true},
        {.name = "local_encrypted",
         .start = Start<LocalSite>,
         .password = kPassword,
         .delete_of_missing_throws = true},
        {.name = "node",
         .start = StartWith<NodeSite>("127.0.0.1"),
         .password = "",
         .forbidden_bytes = kNotThroughScp},
        {.name = "node_encrypted_ip6",
         .start = StartWith<NodeSite>("::1"),
         .password = kPassword,
         .forbidden_bytes = kNotThroughLs},
        {.name = "sftp_ip6",
         .start = StartWith<SftpSite>("[::1]", "key"),
         .password = "",
         .forbidden_bytes = kNotThroughScp},
        {.name = "sftp_encrypted",
         .start = StartWith<SftpSite>("127.0.0.1", "key_pem"),
         .password = kPassword,
         .reports_dead_encoder = false,
         .forbidden_bytes = kNotThroughLs},
        {.name = "ftp_active",
         .start = StartActiveFtp,
         .password = "",
         .forbidden_bytes = kNotForPureFtpd},
        {.name = "ftp_tls_encrypted",
         .start = StartPassiveFtpWithTls,
         .password = kPassword,
         .forbidden_bytes = kControls},
        {.name = "dropbox",
         .start = StartCloud<vel_rpc::Dropbox>("dropbox", "dropbox"),
         .password = kPassword,
         .lists_files = false,
         .forbidden_bytes = kNotUtf8},
        {.name = "yandex",
         .start = StartCloud<vel_rpc::Yandex>("yandex", "yandex"),
         .password = "",
         .lists_files = false,
         .forbidden_bytes = kNotUtf8},
        {.name = "googledrive",
         .start = StartCloud<vel_rpc::GoogleDrive>("googledrive", "google_drive"),
         .password = kPassword,
         .lists_files = false,
         .forbidden_bytes = kNotUtf8},
        {.name = "s3",
         .start = StartCloud<vel_rpc::S3>("s3", "s3_ceph"),
         .password = "",
         .lists_files = false,
         .keeps_empty_dirs = false,
         .forbidden_bytes = kControls},
        {.name = "amazon_encrypted",
         .start = StartCloud<vel_rpc::S3>("amazon", "s3_swift"),
         .password = kPassword,
         .lists_files = false,
         .keeps_empty_dirs = false,
         .forbidden_bytes = kControls},
    };
}
