#include "sbin/qortar/report.h"

#include <cstdio>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

namespace qortar {

std::string Reason(const std::exception& error) {
    const auto* known = dynamic_cast<const vel_err::Error*>(&error);
    return known && !known->value().empty() ? known->value() : error.what();
}

void PutJsonText(std::string& line, const std::string& key, const std::string& value) {
    const auto policy = nlohmann::json::error_handler_t::replace;
    const std::string text = nlohmann::json(value).dump(-1, ' ', false, policy);
    str::Append(line, nlohmann::json(key).dump() + ":" + text, ",");
    if (nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::ignore) != text)
        str::Append(line, "\"" + key + "_hex\":\"" + str::hex::Encode(value) + "\"", ",");
}

void Report::Line(const std::string& name, const std::string& key, const std::string& reason) {
    if (json_) {
        std::string line;
        PutJsonText(line, "name", name);
        PutJsonText(line, key, reason);
        std::printf("{%s}\n", line.c_str());
    } else {
        std::printf("%s\t%s\n", backup2::EncodeFileName(name).c_str(),
                    backup2::EncodeFileName(reason).c_str());
    }
}

void Report::Fail(const std::string& name, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    if (!seen_.insert(name).second) return;
    if (failures_++ == 0) first_ = backup2::EncodeFileName(name) + ": " + reason;
    Line(name, "reason", reason);
}

void Report::Warn(const std::string& name, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    ++warnings_;
    Line(name, "reason", reason);
}

void Report::Action(const std::string& action, const std::string& name) {
    const std::lock_guard lock(mutex_);
    if (json_) {
        Line(name, "action", action);
    } else {
        std::printf("%s\t%s\n", action.c_str(), backup2::EncodeFileName(name).c_str());
    }
}

int Report::Finish(const std::string& what) const {
    std::fflush(stdout);
    if (failures_ == 0) return warnings_ == 0 ? vel_tool::kDone : vel_tool::kWarnings;
    std::fprintf(stderr, "%s: %s, %llu failed; the first: %s\n", vel_tool::ProgramName().c_str(),
                 what.c_str(), static_cast<unsigned long long>(failures_), first_.c_str());
    return vel_tool::kFailed;
}

}  // namespace qortar
