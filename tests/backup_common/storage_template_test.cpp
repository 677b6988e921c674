// The cloud storages over a client that answers as told; the real ones are in tests/contract.
#include "backup_common/detail/storage_template.h"

#include <gtest/gtest.h>

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

int put_status = 201;
std::string calls, fails;  // "operation path;" each, and the operation that throws
std::vector<std::string> listing;

class Client {
public:
    explicit Client(const std::string& credential) { Call("made of", credential); }
    void Get(const std::string& path, std::ostream&) { Call("get", path); }
    int Put(const std::string& path, std::istream&, const std::string& type) {
        Call("put" + type, path);
        return put_status;
    }
    void List(const std::string& path, std::vector<std::string>& out) {
        Call("list", path);
        out = listing;
    }
    void Delete(const std::string& path) { Call("delete", path); }
    void MkPath(const std::string& path) { Call("mkpath", path); }
    void RmDir(const std::string& path) { Call("rmdir", path); }
    void DropToken() { Call("drop", "token"); }

private:
    static void Call(const std::string& operation, const std::string& path) {
        calls += operation + " " + path + ";";
        if (operation == fails) throw vel_err::Error("network");
    }
};

class CloudStorage : public testing::Test {
protected:
    CloudStorage() {
        put_status = 201;
        fails.clear();
        listing.clear();
        calls.clear();
    }
    /// What the client was asked for by one operation of a new storage.
    template <class Operation>
    std::string Calls(const Operation& operation) {
        StorageTemplate<Client> storage(BackupToken("type=s3;token=c;path=/b"));
        calls.clear();
        operation(storage);
        return calls;
    }
    LogCapture log_;
};

TEST_F(CloudStorage, StatusOfAnUploadIsStoredNoRoomOrADeadLogin) {
    const auto put = [](Storage& storage) {
        std::istringstream in("bytes");
        return storage.PutArch("f", in);
    };
    StorageTemplate<Client> storage(BackupToken("type=s3;token=c;path=/b"));
    EXPECT_EQ(calls, "made of c;");
    for (const auto& [status, stored] :
         std::map<int, bool>{{200, true}, {201, true}, {500, true}, {507, false}}) {
        put_status = status;
        EXPECT_EQ(put(storage), stored) << status;
    }
    put_status = 401;
    try {
        put(storage);
        ADD_FAILURE() << 401;
    } catch (const vel_err::Error& e) {
        EXPECT_STREQ(e.what(),
                     "Type: 'unauthorized' Object: 'storage' Value: 'Authorization error'");
    }
}

TEST_F(CloudStorage, DeletesOnlyWhatIsListedAndNeverThrows) {
    const auto remove = [](Storage& storage) { storage.Delete("u/f"); };
    EXPECT_EQ(Calls(remove), "list /b/u/f;");
    EXPECT_TRUE(log_.Has(9, "backup2_storage.cpp:137 Content is empty"));
    listing = {"f"};
    EXPECT_EQ(Calls(remove), "list /b/u/f;delete /b/u/f;");
    for (const char* operation : {"list", "delete"}) {
        const LogCapture log;
        fails = operation;
        Calls(remove);
        EXPECT_TRUE(log.Has(4, "Failed to find file on storage")) << operation;
    }
}

TEST_F(CloudStorage, ParentGoesOnlyAfterAnEmptyListing) {
    const auto remove = [](Storage& storage) { storage.RmDir("u/d"); };
    EXPECT_EQ(Calls(remove), "rmdir /b/u/d/;list /b/u/;rmdir /b/u/;");
    listing = {"other"};
    EXPECT_EQ(Calls(remove), "rmdir /b/u/d/;list /b/u/;");
    listing.clear();
    fails = "list";
    EXPECT_EQ(Calls(remove), "rmdir /b/u/d/;list /b/u/;");
    fails = "rmdir";
    EXPECT_EQ(Calls(remove), "rmdir /b/u/d/;");
}

}  // namespace
}  // namespace backup2
