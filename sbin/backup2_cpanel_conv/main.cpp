/// backup2_cpanel_conv: an account's archive of cPanel becomes a panel document, a tree and dumps.
#include "vel/vel_tool.h"

#include "sbin/backup2_cpanel_conv/collected.h"

namespace {

constexpr char kHelp[] =
    "Convert an archive of cPanel (cpmove-USER.tar.gz, a full backup, USER.tar) into a folder "
    "that\n"
    "\"backup2 import\" reads: doc.xml, data/ and db/.";

void Convert(foreign_panel::Job& job) {
    const cpanel::Collected from = cpanel::Collect(job);
    cpanel::Account account = cpanel::ConvertAccount(job, from);
    cpanel::ConvertCertificates(job, from, account);
    cpanel::ConvertDomains(job, from, account);
    cpanel::ConvertDatabases(job, from, account);
    cpanel::ConvertMail(job, from, account);
    cpanel::ConvertZones(job, from, account);
    cpanel::ConvertCron(job, from, account);
    cpanel::ConvertFtp(job, from, account);
}

int Run(const std::vector<std::string>& arguments) {
    return foreign_panel::RunConverter("cPanel", kHelp, arguments, &Convert);
}

}  // namespace

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, Run); }
