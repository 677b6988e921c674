/// A throw-away server of tests/servers, run by its script.
#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "vel/str.h"
#include "vel/vel_proc.h"

#include "tests/support/support.h"

/// Runs while the object lives. Throws when it cannot be started: a kind of storage without its
/// server is a failure, not a test less. A server that is dear to start is a static object of the
/// test that wants it.
class Server {
public:
    /// `options`: variables for the script, NAME=value.
    explicit Server(const std::string& name, const std::map<std::string, std::string>& options = {})
        : script_(std::string(BACKUP2_SOURCE_DIR) + "/tests/servers/" + name) {
        vel_proc::Execute start({script_, "start", dir_.Path()}, 0);
        for (const auto& [option, value] : options) start.SetEnv(option, value);
        const std::string settings = start.Str();
        const int status = start.Result();
        if (status != 0) {
            throw std::runtime_error("server " + name + ": status " + std::to_string(status));
        }
        str::Split(settings, "\n", settings_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() { Stop(); }

    /// One of the settings that the script has printed; "" for an unknown one.
    const std::string& operator[](const std::string& setting) { return settings_[setting]; }
    void Stop() { vel_proc::Execute({script_, "stop", dir_.Path()}, 0).Result(); }

private:
    TempDir dir_;
    const std::string script_;
    std::map<std::string, std::string> settings_;
};
