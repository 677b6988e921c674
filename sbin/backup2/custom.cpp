#include "sbin/backup2/custom.h"

#include <algorithm>
#include <list>
#include <memory>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

// States of a new backup, as its directory's name begins.
const char kMaking[] = ".making.";      // incomplete: whoever finds it takes it back
const char kComplete[] = ".complete.";  // uploaded: whoever finds it lets it take its place
const char kOldInfo[] = "old.info";     // the record of the one before, until its slices are gone

/// Nobody else reads or removes what the folder holds while the result lives.
std::unique_ptr<backup2::Lock> WaitForReaders(const std::string& folder) {
    constexpr int kTries = 3600 * 5, kPauseMs = 200;
    for (int tries = 1;; ++tries) {
        try {
            return std::make_unique<backup2::Lock>(folder);
        } catch (const vel_err::Error& error) {
            if (error.type() != "lock") throw;
        }
        if (tries == kTries) {
            throw std::runtime_error(
                "it is complete and takes its place with the next custom backup: the one before is "
                "being read");
        }
        vel_proc::Sleep(kPauseMs);
    }
}

void PutAgain(const std::string& local) {
    RunTool({"backup2_cp", "--put", "--no-delete", local}).ThrowIfFailed(local);
}

}  // namespace

CustomBackup::CustomBackup(std::string local_dir, std::string place, std::string user,
                           const backup2::BackupToken& token)
    : local_dir_(std::move(local_dir)),
      place_(std::move(place)),
      user_(std::move(user)),
      token_(token) {}

std::string CustomBackup::Dir(const std::string& state, const std::string& stamp) const {
    return vel_file::ConcatPath(local_dir_, state + stamp + "." + user_);
}

std::vector<std::string> CustomBackup::StampsOf(const std::string& state) const {
    std::vector<std::string> stamps;
    const std::string tail = "." + user_;
    for (vel_file::Dir entries(local_dir_, 2); entries.Next();) {
        const std::string name = entries.Name();
        const std::string stamp = name.substr(std::min(name.size(), state.size()), 10);
        if (name == state + stamp + tail) stamps.push_back(stamp);
    }
    return stamps;
}

/// The day in "C<day>.user.tgz..." of the backup that the info file describes, "" without one.
std::string CustomBackup::StampIn(const std::string& info_path) const {
    if (!vel_file::Exists(info_path)) return "";
    const auto info = backup2::GetInfo(info_path);
    const auto last = info.find("last-slice");
    return last == info.end() ? "" : backup2::GetDate(vel_file::Name(last->second));
}

void CustomBackup::Recover() {
    for (const std::string& stamp : StampsOf(kComplete)) Complete(stamp);
    for (const std::string& stamp : StampsOf(kMaking)) {
        EndOrphans(Dir(kMaking, stamp));
        TakeBack(stamp);
    }
}

void CustomBackup::Begin() {
    vel_date::Date day;
    const std::string taken = StampIn(vel_file::ConcatPath(place_, "custom." + user_ + ".info"));
    if (day.AsDate() == taken) day.AddDays(1);
    stamp_ = day.AsDate();
    vel_file::MkDir(WorkDir(), vel_file::Attrs(0700));
}

std::string CustomBackup::WorkDir() const { return Dir(kMaking, stamp_); }

void CustomBackup::Finish() {
    vel_file::Move(WorkDir(), Dir(kComplete, stamp_));
    Complete(stamp_);
}

void CustomBackup::TakeBack() { TakeBack(stamp_); }

void CustomBackup::Complete(const std::string& stamp) {
    const auto alone = WaitForReaders(backup2::MkLocalDir(local_dir_, user_, kCustom));
    const std::string dir = Dir(kComplete, stamp);
    const std::string index = "custom." + user_ + ".tgz", info = "custom." + user_ + ".info";
    const std::string old_info = vel_file::ConcatPath(dir, kOldInfo);
    const std::string new_info = vel_file::ConcatPath(dir, info);
    if (vel_file::Exists(new_info)) {  // else a run before this one came further
        const std::string present = vel_file::ConcatPath(place_, info);
        if (vel_file::Exists(present)) vel_file::CopyFile(present, old_info);
        const std::string new_index = vel_file::ConcatPath(dir, index);
        if (vel_file::Exists(new_index))
            vel_file::Move(new_index, vel_file::ConcatPath(place_, index));
        vel_file::Move(new_info, present);
    }
    const std::string old_stamp = StampIn(old_info);
    if (!old_stamp.empty() && old_stamp != stamp)
        DeleteStored("C" + old_stamp + "." + user_ + ".tgz");
    vel_file::Remove(dir);
}

void CustomBackup::TakeBack(const std::string& stamp) {
    DeleteStored("C" + stamp + "." + user_ + ".tgz");
    // The new index and info may have been uploaded already.
    const std::string own = vel_file::ConcatPath(place_, "custom." + user_);
    if (vel_file::Exists(own + ".info")) {
        if (vel_file::Exists(own + ".tgz")) PutAgain(own + ".tgz");
        PutAgain(own + ".info");
    } else {
        DeleteStored("custom." + user_ + ".");
    }
    vel_file::Remove(Dir(kMaking, stamp));
}

void CustomBackup::DeleteStored(const std::string& beginning) {
    const auto storage = backup2::GetStorage(token_);
    const std::string dir = vel_file::ConcatPath(user_, kCustom);
    std::list<std::string> stored;
    storage->List(stored, dir);
    for (const std::string& name : stored) {
        if (str::StartsWith(name, beginning)) storage->Delete(vel_file::ConcatPath(dir, name));
    }
}

}  // namespace backup2_admin
