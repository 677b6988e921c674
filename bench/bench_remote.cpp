// One operation of one storage, through the library; the token comes in BENCH_TOKEN:
// bench_remote put NAME FILE | get NAME FILE | list DIR (prints the number of names) |
// mkdir DIR | rmdir DIR.
#include <iostream>
#include <list>

#include "vel/vel_env.h"

#include "backup_common/backup2_storage.h"

namespace {

int Count(backup2::Storage& storage, const std::string& dir) {
    std::list<std::string> names;
    storage.List(names, dir);
    std::cout << names.size() << "\n";
    return 0;
}

int Run(backup2::Storage& storage, const std::string& action, const std::string& name,
        const std::string& file) {
    if (action == "put") return storage.Put(name, file) ? 0 : 1;
    if (action == "list") return Count(storage, name);
    if (action == "get") {
        storage.Get(name, file);
    } else if (action == "mkdir") {
        storage.MkDir(name);
    } else {
        storage.RmDir(name);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 3) {
        std::cerr << "usage: bench_remote put|get NAME FILE | list|mkdir|rmdir DIR\n";
        return 2;
    }
    const auto storage = backup2::GetStorage(backup2::BackupToken(vel_env::GetEnv("BENCH_TOKEN")));
    return Run(*storage, argv[1], argv[2], argc > 3 ? argv[3] : "");
} catch (const std::exception& error) {
    std::cerr << "bench_remote: " << error.what() << "\n";
    return 1;
}
