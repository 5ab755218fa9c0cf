// SQLite without a daemon: what the benches hold the daemon's writes against.
#pragma once

#include <sqlite3.h>

#include <array>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// The statements that the daemon prepares for each change, in its order.
inline constexpr std::array kTwelveStatements{"select value from vxsetting where name=?",
                                              "select value from catblockinginfo where name=?",
                                              "select value from allowblocksettings where name=?",
                                              "select * from privateIPRange",
                                              "insert or replace into vxsetting values(?,?)",
                                              "insert or replace into catblockinginfo values(?,?)",
                                              "insert or replace into allowblocksettings values(?,?)",
                                              "insert or replace into privateIPRange values(?)",
                                              "delete from vxsetting",
                                              "delete from catblockinginfo",
                                              "delete from allowblocksettings",
                                              "delete from privateIPRange"};
enum BareStatement : std::size_t {
    kSetSetting = 4,
    kSetCategory,
    kSetUrl,
    kSetRange,
    kNoCategories = 9,
    kNoUrls,
    kNoRanges
};

/// A settings file that is open, with its statements prepared; closed when this ends.
/// Threads: plain, single access. Owner: the bench.
class BareFile {
public:
    /// @throws std::runtime_error when it cannot be opened, or a statement does not fit it.
    explicit BareFile(const std::string& path, std::span<const char* const> statements = kTwelveStatements) {
        check(sqlite3_open(path.c_str(), &m_handle));
        for (const char* text : statements) {
            check(sqlite3_prepare_v2(m_handle, text, -1, &m_statements.emplace_back(), nullptr));
        }
    }
    ~BareFile() {
        for (sqlite3_stmt* statement : m_statements) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(m_handle);
    }
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;

    /// Runs a statement with a name and a number, as far as it takes them, in a transaction of its own.
    void run(std::size_t which, std::string_view name = {}, int number = 0) {
        sqlite3_stmt* const statement = m_statements.at(which);
        const int parameters = sqlite3_bind_parameter_count(statement);
        if (parameters > 0) {
            check(sqlite3_bind_text(statement, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC));
        }
        if (parameters > 1) {
            check(sqlite3_bind_int(statement, 2, number));
        }
        if (sqlite3_step(statement) != SQLITE_DONE) {
            throw std::runtime_error("a bare write fails");
        }
        sqlite3_reset(statement);
    }

    /// Runs a question, and @p row with each row of its answer.
    template <class Row>
    void ask(std::size_t which, const Row& row) {
        sqlite3_stmt* const statement = m_statements.at(which);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            row(statement);
        }
        sqlite3_reset(statement);
    }

private:
    static void check(int result) {
        if (result != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errstr(result));
        }
    }

    sqlite3* m_handle = nullptr;
    std::vector<sqlite3_stmt*> m_statements;
};

/// Makes a settings file that no daemon knows, with the layout of the daemon's.
inline void makeBareFile(const std::string& path) {
    for (const char* table : {"create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))",
                              "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name))",
                              "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name))",
                              "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range))"}) {
        BareFile(path, std::array{table}).run(0);
    }
}

} // namespace bench
