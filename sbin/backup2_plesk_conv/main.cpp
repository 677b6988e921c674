/// backup2_plesk_conv: an account of a Plesk backup becomes a panel document, a tree and dumps.
#include "vel/vel_tool.h"

#include "sbin/backup2_plesk_conv/backup.h"
#include "sbin/backup2_plesk_conv/contents.h"
#include "sbin/backup2_plesk_conv/objects.h"

namespace {

constexpr char kHelp[] =
    "Convert a backup of Plesk (tar, tgz or zip, as its panel gives it out) into a folder that\n"
    "\"backup2 import\" reads: doc.xml, data/ and db/.";

/// The first pass reads the descriptions, the second one what they point to: the descriptions may
/// stand behind it.
void Convert(foreign_panel::Job& job) {
    const plesk::Backup backup = plesk::ReadBackup(job);
    const plesk::Account account = plesk::ChooseAccount(job, backup);
    plesk::Contents contents(job, backup);
    plesk::ConvertAccount(job, account);
    for (const plesk::Subscription& subscription : account.subscriptions)
        plesk::ConvertSubscription(job, account, subscription, contents);
    contents.Fetch();
}

int Run(const std::vector<std::string>& arguments) {
    return foreign_panel::RunConverter("Plesk", kHelp, arguments, &Convert);
}

}  // namespace

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, Run); }
