// The library's part in the life of a backup, for measuring:
//   bench_life find DIR [USER [DATE]]     GetInfoFiles: how many info files there are
//   bench_life read DIR                   GetInfo of each of them: bytes of "last-slice"
//   bench_life remove DIR COUNT           ms of each RemoveItem of a new line
//   bench_life pairs DIR COUNT WRITER     COUNT lines of WRITER put into the journal and taken out
#include <chrono>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_qortar.h"

namespace {

using Arguments = std::vector<std::string>;

const std::string& At(const Arguments& arguments, std::size_t i) {
    static const std::string none;
    return i < arguments.size() ? arguments[i] : none;
}

std::list<std::string> InfoFiles(const Arguments& arguments) {
    std::list<std::string> files;
    backup2::GetInfoFiles(files, At(arguments, 1), true, At(arguments, 2), At(arguments, 3));
    return files;
}

void Read(const Arguments& arguments) {
    std::size_t bytes = 0;
    for (const std::string& file : InfoFiles(arguments)) {
        bytes += backup2::GetLastSliceLocalPath(file).size();
    }
    std::cout << bytes << "\n";
}

/// Puts a line into the journal and takes it out; milliseconds of the latter.
double Pair(const std::string& dir, const std::string& name) {
    backup2::Cleanup item(dir, "type=local;path=/backup", name, "2024-01-31", false);
    const auto start = std::chrono::steady_clock::now();
    item.RemoveItem();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

void Remove(const Arguments& arguments) {
    for (int i = 0; i < std::stoi(At(arguments, 2)); ++i) {
        std::cout << Pair(At(arguments, 1), "bob") << "\n";
    }
}

void Pairs(const Arguments& arguments) {
    for (int i = 0; i < std::stoi(At(arguments, 2)); ++i) {
        Pair(At(arguments, 1), At(arguments, 3) + "_" + std::to_string(i));
    }
}

void Run(const Arguments& arguments) {
    const std::string& what = At(arguments, 0);
    if (what == "find") {
        std::cout << InfoFiles(arguments).size() << "\n";
    } else if (what == "read") {
        Read(arguments);
    } else if (what == "remove") {
        Remove(arguments);
    } else if (what == "pairs") {
        Pairs(arguments);
    } else {
        throw std::runtime_error("usage: bench_life find|read|remove|pairs DIR ...");
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Run(Arguments(argv + 1, argv + argc));
    return 0;
} catch (const std::exception& error) {
    std::cerr << "bench_life: " << error.what() << "\n";
    return 1;
}
