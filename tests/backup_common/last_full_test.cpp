#include <gtest/gtest.h>

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

constexpr char kToken[] = "type=local;arch_password=c2VjcmV0";

class LastFull : public testing::Test {
protected:
    std::string Place(const std::string& day) const { return local_ + "/bob/" + day + "/" + day; }
    /// A full backup that can serve as a base, changed by `lines`.
    void Add(const std::string& day, const std::string& lines = "") const {
        MakeFile(Place(day) + ".bob.info",
                 "type=full\ncreated=" + day + " 01:00:00\nfinished=" + day +
                     " 01:00:00\nkey_hash=" + BackupToken(kToken).Hash() + "\n" + lines);
        MakeFile(Place(day) + ".bob.tgz", "");
    }
    /// The day of the base, "" for a full backup.
    std::string Base(const std::string& date) const {
        const std::string index = LookupLastFull(*settings_, "bob", date);
        if (index.empty() || index == "exists") return index;
        const std::string day = index.substr(index.rfind('/') + 1, 10);
        EXPECT_EQ(index, local_ + "//bob/" + day + "/" + day + ".bob.tgz");
        return day;
    }

    LogCapture log_;
    WorkDir work_;
    const std::string local_ = work_.Path() + "/var/backup/qorvel";
    const std::unique_ptr<Settings> settings_ =
        MakeSettings("bob", local_, "<storage>" + std::string(kToken) + "</storage>");
};

// 2024-03-03 is a Sunday.
TEST_F(LastFull, EarliestFullBackupOfTheWeekIsTheBase) {
    EXPECT_EQ(Base("2024-03-06"), "");
    Add("2024-03-02");
    Add("2024-03-08");
    EXPECT_EQ(Base("2024-03-06"), "") << "last week's, and a later one";
    EXPECT_EQ(Base("2024-3-6"), "") << "dates are compared, not texts";
    Add("2024-03-05");
    EXPECT_EQ(Base("2024-03-06"), "2024-03-05");
    Add("2024-03-03");
    for (const char* day : {"2024-03-06", "2024-03-04", "2024-03-09"}) {
        EXPECT_EQ(Base(day), "2024-03-03") << day;
    }
    EXPECT_EQ(Base("2024-03-10"), "") << "a week begins with a full backup";
}

TEST_F(LastFull, BackupOfTheDayComesBeforeAllElse) {
    MakeFile(local_ + "/2024-03-06.bob.info", "\xff");
    MakeFile(Place("2024-03-03") + ".bob.info", "created=nonsense");
    EXPECT_EQ(Base("2024-03-06"), "exists");
    EXPECT_TRUE(log_.Has(4, "Backup for user 'bob' for 0 already exists"));
}

TEST_F(LastFull, UnusableBackupsAreSteppedOver) {
    Add("2024-03-04");
    const std::string key = "key_hash=", another = BackupToken("arch_password=YQ==").Hash();
    const std::initializer_list<std::string> unusable = {
        "type=incremental", "deleted=", "created=2024-03-03 01:00:01",
        "finished=",        key,        key + another};
    for (const std::string& line : unusable) {
        Add("2024-03-03", line + "\n");  // of equal keys the last counts
        EXPECT_EQ(Base("2024-03-06"), "2024-03-04") << line;
    }
    EXPECT_TRUE(log_.Has(4, "Ceated in 2024-03-03 backup belongs to restored user"));
    Add("2024-03-03");
    std::filesystem::remove(Place("2024-03-03") + ".bob.tgz");
    EXPECT_EQ(Base("2024-03-06"), "2024-03-04") << "no index";
    Add("2024-03-03", "created=yesterday\n");
    EXPECT_THROW(Base("2024-03-06"), vel_err::Error);
    EXPECT_THROW(Base("2024-02-30"), vel_err::Error);
}

}  // namespace
}  // namespace backup2
