/// What every storage must do, whatever stands behind it. A new kind adds a row in backends.cpp:
/// how to start its server, and how it deviates.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "backup_common/backup2_storage.h"

#include "tests/support/support.h"

/// A storage's far side, alive as long as the object.
class Site {
public:
    virtual ~Site() = default;
    /// Names the storage, without a password.
    virtual backup2::BackupToken Token() const = 0;
    /// Names the storage through which files get here, where it takes no uploads itself.
    virtual backup2::BackupToken UploadToken() const { return Token(); }
    /// The bytes that lie on the storage under this name.
    virtual std::string Stored(const std::string& name) const = 0;
};

struct Backend {
    std::string name;  // shown in the test name
    std::function<std::unique_ptr<Site>()> start;
    std::string password;                   // of the archives, "" = stored as they are
    bool delete_of_missing_throws = false;  // most do not care
    bool reports_dead_encoder = true;       // or only logs it, as the sizes will tell
    bool lists_files = true;                // or directories only
    bool keeps_empty_dirs = true;           // where directories are no more than parts of names
    std::string forbidden_bytes = {};       // that names of files cannot hold there
};

void PrintTo(const Backend& backend, std::ostream* out);

/// All rows; each is run through every case.
std::vector<Backend> Backends();
