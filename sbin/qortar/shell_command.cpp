#include "sbin/qortar/shell_command.h"

#include <array>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_proc.h"

namespace qortar {
namespace {

constexpr std::size_t kOutputTail = 4096;

// The end of what the command wrote, however much that was.
std::string ReadTail(std::istream& output) {
    std::string tail;
    std::array<char, 4096> piece;
    while (output.read(piece.data(), piece.size()) || output.gcount() > 0) {
        tail.append(piece.data(), static_cast<std::size_t>(output.gcount()));
        if (tail.size() > kOutputTail) tail.erase(0, tail.size() - kOutputTail);
    }
    return tail;
}

std::string LastLine(const std::string& text) {
    const std::string trimmed = str::Trim(text);
    return trimmed.substr(trimmed.rfind('\n') + 1);
}

}  // namespace

std::string ExpandCommand(const std::string& command, const std::string& word,
                          const std::string& dir, const std::string& name) {
    std::string text;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char next = command[i] == '%' && i + 1 < command.size() ? command[i + 1] : '\0';
        switch (next) {
            case 'c':
                text += word;
                break;
            case 'p':
                text += vel_proc::Escape(dir);
                break;
            case 'f':
                text += vel_proc::Escape(name);
                break;
            case '%':
                text += '%';
                break;
            default:
                text += command[i];
                continue;
        }
        ++i;
    }
    return text;
}

void RunCommand(const std::string& text, const std::string& object, Token token) {
    vel_proc::Execute child(text, vel_proc::kStream | vel_proc::kJoinErrors);
    if (token == Token::Hide) child.UnsetEnv("BACKUP_TOKEN").UnsetEnv("BACKUP_STORAGE");
    const std::string output = ReadTail(child.Out());
    const int status = child.Result();
    if (status == 0) return;
    std::string reason = object + ": its command ended with status " + std::to_string(status);
    str::Append(reason, LastLine(output), ": ");
    throw vel_err::Error("command", "failed", reason);
}

}  // namespace qortar
