#include "sbin/foreign_panel/grants.h"

#include <cctype>
#include <stdexcept>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr std::size_t kMostUsers = 100'000;

struct Token {
    std::string text;
    bool quoted = false;
};
using Statement = std::vector<Token>;

/// Cuts the text at ";" and into words, quoted texts and single signs.
class Lexer {
public:
    Lexer(const std::string& text, bool backslashes) : text_(text), backslashes_(backslashes) {}

    bool Next(Statement& statement) {
        statement.clear();
        for (; at_ < text_.size();) {
            const char c = text_[at_];
            if (c == ';') {
                ++at_;
                if (!statement.empty()) return true;
            } else if (std::isspace(static_cast<unsigned char>(c))) {
                ++at_;
            } else if (text_.compare(at_, 2, "--") == 0 || c == '#') {
                at_ = std::min(text_.find('\n', at_), text_.size());
            } else {
                statement.push_back(c == '\'' || c == '"' || c == '`' ? Quoted(c) : Bare());
            }
        }
        return !statement.empty();
    }

private:
    static bool IsWord(char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
    }
    Token Bare() {
        const std::size_t begin = at_;
        while (at_ < text_.size() && IsWord(text_[at_])) ++at_;
        if (at_ == begin) ++at_;
        std::string word = text_.substr(begin, at_ - begin);
        return {word, false};
    }
    Token Quoted(char quote) {
        Token token{"", true};
        for (++at_; at_ < text_.size(); ++at_) {
            const char c = text_[at_];
            const char next = at_ + 1 < text_.size() ? text_[at_ + 1] : '\0';
            if (c == quote && next != quote) {
                ++at_;
                break;
            }
            const bool escaped = backslashes_ && c == '\\' && quote != '`' && next != '\0';
            if (c == quote || escaped) ++at_;
            token.text += text_[at_];
        }
        return token;
    }

    const std::string& text_;
    bool backslashes_;
    std::size_t at_ = 0;
};

std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

/// A reader of one statement.
class Cursor {
public:
    explicit Cursor(const Statement& statement) : statement_(statement) {}
    bool AtEnd() const { return at_ >= statement_.size(); }
    bool Take(const char* word) {
        if (AtEnd() || statement_[at_].quoted || Upper(statement_[at_].text) != word) return false;
        ++at_;
        return true;
    }
    bool Take(std::initializer_list<const char*> words) {
        const std::size_t before = at_;
        for (const char* word : words)
            if (!Take(word)) return at_ = before, false;
        return true;
    }
    std::string Text() {
        if (AtEnd()) throw std::runtime_error("ends too early");
        return statement_[at_++].text;
    }
    bool Quoted() const { return !AtEnd() && statement_[at_].quoted; }
    /// Everything up to the word, which is taken too.
    std::string Until(const char* word) {
        std::string text;
        while (!Take(word)) {
            const std::string one = Upper(Text());
            const bool sign = one == "," || one == ")";
            text += (text.empty() || sign || text.back() == '(' ? "" : " ") + one;
        }
        return text;
    }

private:
    const Statement& statement_;
    std::size_t at_ = 0;
};

/// Shown in a report: no quoted text but the first, which is a name.
std::string Described(const Statement& statement) {
    std::string text;
    int quoted = 0;
    for (const Token& token : statement) {
        str::Append(text, token.quoted && ++quoted > 1 ? "..." : token.text, " ");
        if (text.size() > 100) break;
    }
    return text.substr(0, 120);
}

/// In a grant the name of a database is a pattern with "\_" and "\%" for the bare signs.
std::string PlainDatabase(const std::string& pattern) {
    return str::Replace(str::Replace(pattern, "\\_", "_"), "\\%", "%");
}

// ---- MySQL --------------------------------------------------------------------------------------

struct Account {
    std::string name, host = "%";
};

Account TakeAccount(Cursor& cursor) {
    Account account{cursor.Text()};
    if (!cursor.Take("@")) return account;
    account.host = cursor.Text();
    // A host without quotes comes in pieces: 10 . 0 . 0 . 1
    while (!cursor.AtEnd() && !cursor.Quoted() && cursor.Take("."))
        account.host += "." + cursor.Text();
    return account;
}

void TakePassword(Cursor& cursor, DatabaseUser& user) {
    if (!cursor.Take("IDENTIFIED")) return;
    if (cursor.Take({"BY", "PASSWORD"})) {
        user.password = cursor.Text();
    } else if (cursor.Take({"WITH"}) || cursor.Take({"VIA"})) {
        cursor.Text();  // the plug-in: the form of the hash tells it too
        if (cursor.Take("AS") || cursor.Take("USING")) user.password = cursor.Text();
    }
    // "BY 'password'" in plain text: nobody keeps it so, and it must not get into a report.
}

bool MysqlStatement(const Statement& statement, DatabaseUsers& users) {
    Cursor cursor(statement);
    if (cursor.Take({"CREATE", "USER"})) {
        cursor.Take({"IF", "NOT", "EXISTS"});
        const Account account = TakeAccount(cursor);
        users[account.name].hosts.insert(account.host);
        TakePassword(cursor, users[account.name]);
        return true;
    }
    if (!cursor.Take("GRANT")) return cursor.Take("SET") || cursor.Take("FLUSH");
    const std::string privileges = cursor.Until("ON");
    const std::string database = cursor.Text();
    if (!cursor.Take(".") || !cursor.Take("*") || !cursor.Take("TO")) return false;
    const Account account = TakeAccount(cursor);
    DatabaseUser& user = users[account.name];
    user.hosts.insert(account.host);
    TakePassword(cursor, user);
    if (database != "*")
        user.grants.push_back({PlainDatabase(database), account.host,
                               privileges == "ALL" ? "ALL PRIVILEGES" : privileges});
    // Rights on everything are not given to a user of one account, here as there.
    return database != "*" || privileges == "USAGE";
}

// ---- PostgreSQL ---------------------------------------------------------------------------------

bool PostgresqlStatement(const Statement& statement, DatabaseUsers& users) {
    Cursor cursor(statement);
    if (cursor.Take({"CREATE", "USER"}) || cursor.Take({"CREATE", "ROLE"}) ||
        cursor.Take({"ALTER", "USER"}) || cursor.Take({"ALTER", "ROLE"})) {
        DatabaseUser& user = users[cursor.Text()];
        while (!cursor.AtEnd())
            if (cursor.Take("PASSWORD"))
                user.password = cursor.Text();
            else
                cursor.Text();
        return true;
    }
    if (!cursor.Take("GRANT")) return cursor.Take("SET") || cursor.Take("REVOKE");
    bool on_database = false;
    for (const Token& token : statement)
        on_database = on_database || (!token.quoted && Upper(token.text) == "DATABASE");
    // "GRANT role TO user": the other panel's way to share what a database holds.
    const std::string what = on_database ? cursor.Until("ON") : cursor.Text();
    if (on_database) cursor.Take("DATABASE");
    const std::string database = on_database ? cursor.Text() : what;
    if (!cursor.Take("TO")) return false;
    users[cursor.Text()].grants.push_back({database, "", "ALL PRIVILEGES"});
    return true;
}

using Reader = bool (*)(const Statement&, DatabaseUsers&);

void ReadAll(Lexer lexer, Reader read, DatabaseUsers& users, std::vector<std::string>& bad) {
    for (Statement statement; lexer.Next(statement);) {
        if (users.size() >= kMostUsers || bad.size() >= kMostUsers) {
            bad.push_back("everything behind the first " +
                          str::Str(static_cast<uint64_t>(kMostUsers)));
            return;
        }
        try {
            if (!read(statement, users)) bad.push_back(Described(statement));
        } catch (const std::runtime_error& e) {
            bad.push_back(Described(statement) + ": " + e.what());
        }
    }
}

}  // namespace

void ReadMysqlGrants(const std::string& text, DatabaseUsers& users, std::vector<std::string>& bad) {
    ReadAll(Lexer(text, true), &MysqlStatement, users, bad);
}

void ReadPostgresqlGrants(const std::string& text, DatabaseUsers& users,
                          std::vector<std::string>& bad) {
    ReadAll(Lexer(text, false), &PostgresqlStatement, users, bad);
}

}  // namespace foreign_panel
