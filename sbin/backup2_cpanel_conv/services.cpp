// Certificates, DNS zones, cron and FTP.
#include <array>
#include <cctype>

#include "vel/str.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/certificate.h"
#include "sbin/foreign_panel/crontab.h"
#include "sbin/foreign_panel/values.h"
#include "sbin/foreign_panel/zone_file.h"

namespace cpanel {

using namespace foreign_panel;

namespace {

void AddCertificate(Job& job, Account& account, const std::string& domain, const std::string& pem) {
    if (AddCertificate(job, domain, {domain}, pem)) account.certificates.insert(domain);
}

/// Hosts that were served with a certificate there and are not here.
void ReportMissing(Job& job, const Collected& from, const Account& account) {
    for (const std::string& file : from.Names("userdata")) {
        if (!str::EndsWith(file, "_SSL")) continue;
        const std::string domain = Domain(file.substr(0, file.size() - 4));
        if (!domain.empty() && account.certificates.count(domain) == 0)
            job.Lost("certificate", domain, "the archive does not hold it");
    }
}

}  // namespace

void ConvertCertificates(Job& job, const Collected& from, Account& account) {
    for (const std::string& file : from.Names("apache_tls"))
        if (const std::string domain = Domain(file); !domain.empty())
            AddCertificate(job, account, domain, from.Text("apache_tls/" + file));
    for (const std::string& file : from.Names("sslcerts")) {
        if (!str::EndsWith(file, ".crt")) continue;
        const std::string name = file.substr(0, file.size() - 4), domain = Domain(name);
        if (domain.empty() || account.certificates.count(domain) > 0) continue;
        AddCertificate(job, account, domain,
                       from.Text("sslkeys/" + name + ".key") + "\n" +
                           from.Text("sslcerts/" + file) + "\n" +
                           from.Text("sslcerts/" + name + ".cabundle"));
    }
    ReportMissing(job, from, account);
}

void ConvertZones(Job& job, const Collected& from, const Account&) {
    for (const std::string& file : from.Names("dnszones")) {
        const std::string zone =
            str::EndsWith(file, ".db") ? Domain(file.substr(0, file.size() - 3)) : "";
        if (zone.empty()) {
            job.Lost("dns", file, "no zone of a domain");
            continue;
        }
        std::vector<std::string> bad;
        const auto records = ReadZone(from.Text("dnszones/" + file), zone, bad);
        PanelObject object = job.document.Add("dns", zone);
        for (const DnsRecord& record : records)
            object.Record(record.name, record.type, record.ttl, record.data);
        for (const std::string& line : bad) job.Lost("dns", zone, "no record: " + Line(line));
        job.Carried("dns", zone);
    }
}

void ConvertCron(Job& job, const Collected& from, const Account& account) {
    AddCrontab(job, from.Text("cron/" + account.there));
}

void ConvertFtp(Job& job, const Collected& from, const Account& account) {
    for (std::string line : Lines(from.Text("proftpdpasswd"))) {
        std::array<std::string, 7> fields;
        for (std::string& field : fields) field = str::GetWord(line, ':');
        const std::string& name = fields[0];
        // The account's own log-in, and the panel's one for the logs.
        if (name == account.there || name == account.there + "_logs") continue;
        if (!IsName(name)) {
            job.Lost("ftp", name, "its name cannot be used here");
            continue;
        }
        const std::string home = DocumentPath(job.unpacker.PlaceOf(fields[5]));
        if (home.empty()) {
            job.Lost("ftp", name, "its folder is outside the account: " + Line(fields[5]));
            continue;
        }
        PanelObject object = job.document.Add("ftp", name);
        object.Param("name", name).Param("home", home);
        const Password password = FromShadow(fields[1]);
        job.Secret(object, password, "ftp", name);
        object.Flag("suspended", password.locked);
        job.Carried("ftp", name);
    }
}

}  // namespace cpanel
