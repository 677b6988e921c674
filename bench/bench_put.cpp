// Uploads one file to a local storage through the library: bench_put TOKEN NAME FILE.
#include <iostream>

#include "backup_common/backup2_storage.h"

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: bench_put TOKEN NAME FILE\n";
        return 2;
    }
    return backup2::GetStorage(backup2::BackupToken(argv[1]))->Put(argv[2], argv[3]) ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << "bench_put: " << error.what() << "\n";
    return 1;
}
