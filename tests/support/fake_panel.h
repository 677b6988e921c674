/// A panel that gives prepared answers.
#pragma once

#include <string>
#include <vector>

#include "tests/support/evil_server.h"

inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK") {
    return Answer(status, body);
}

/// Listens on var/run/<name>.sock below the working directory while the object lives. Each
/// connection gets the next answer, byte for byte; the last answer serves all that follow.
class FakePanel : public EvilServer {
public:
    explicit FakePanel(const std::vector<std::string>& answers, const std::string& name = "panel")
        : EvilServer(ThatEnd(answers), "var/run/" + name + ".sock") {}

private:
    static std::vector<EvilAnswer> ThatEnd(const std::vector<std::string>& answers) {
        std::vector<EvilAnswer> all;
        for (const std::string& bytes : answers) all.push_back({bytes});
        return all;
    }
};
