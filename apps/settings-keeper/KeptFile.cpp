// Reading the settings file as the daemon does, without ever writing to it.
//
// What must stay so:
// - Each reading is one transaction of its own and ends at once: one that stayed open would keep the log growing.
// - Keys count with the terminator that the daemon stores behind them; a name without it is another one.
// - What is read is bounded as it comes, and a number counts only when it has four bytes.
#include "apps/settings-keeper/KeptFile.h"

#include "apps/settings-keeper/KeeperLimits.h"
#include "base/PrintableText.h"
#include "platform/settings/SettingsKeys.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace Sentrel::keeper {
namespace {

using settings::SettingsSnapshot;

struct stat factsOf(const std::string& path) {
    struct stat facts {};
    if (::lstat(path.c_str(), &facts) != 0) {
        throw DatabaseError(SQLITE_CANTOPEN, errno, std::strerror(errno));
    }
    return facts;
}

/// A value of four bytes; none for any other one.
std::optional<std::int32_t> numberOf(std::string_view bytes) {
    std::int32_t number = 0;
    if (bytes.size() != sizeof number) {
        return std::nullopt;
    }
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

/// The rows of the single values whose names mean something, by name without its NUL.
/// Threads: a plain value. Owner: a local.
class Singles {
public:
    explicit Singles(sqlite3& database) {
        Statement rows(database, "select name, value from vxsetting");
        while (rows.step()) {
            std::string_view name = rows.bytes(0);
            if (name.ends_with('\0') && isKnown(name.substr(0, name.size() - 1))) {
                name.remove_suffix(1);
                m_values.emplace(name, rows.bytes(1));
            }
        }
    }

    const std::string* find(const char* key) const {
        const auto found = m_values.find(key);
        return found != m_values.end() ? &found->second : nullptr;
    }
    std::optional<std::string> text(const char* key) const {
        const std::string* value = find(key);
        return value != nullptr ? std::optional(*value) : std::nullopt;
    }
    /// A value that is no number goes to @p unreadable.
    std::optional<std::int32_t> number(const char* key, std::vector<std::string>& unreadable) const {
        const std::string* value = find(key);
        if (value == nullptr) {
            return std::nullopt;
        }
        const std::optional<std::int32_t> number = numberOf(*value);
        if (!number) {
            unreadable.emplace_back(key);
        }
        return number;
    }

private:
    static bool isKnown(std::string_view name) {
        using namespace settings;
        const auto isThis = [name](const char* key) { return name == key; };
        return std::any_of(kNumberKeys.begin(), kNumberKeys.end(), isThis) || isThis(kProxyHostKey) ||
               isThis(kProxyUserKey) || isThis(kProxyPasswordKey) || isThis(kProxyPortKey) || isThis(kProxyTypeKey) ||
               isThis(kProxyAuthenticationKey);
    }

    std::map<std::string, std::string, std::less<>> m_values;
};

/// Keeps what is read within what a snapshot may hold. Threads: one at a time. Owner: a local.
class Bounds {
public:
    std::string taken(std::string_view text) {
        m_bytes += text.size();
        if (++m_entries > settings::kMaxSnapshotEntries || m_bytes > settings::kMaxSnapshotBytes) {
            throw DatabaseError(SQLITE_TOOBIG, 0, "its lists are longer than a client may read");
        }
        return std::string(text);
    }

private:
    std::size_t m_entries = 0;
    std::size_t m_bytes = 0;
};

settings::ProxySettings proxyOf(const Singles& singles, std::vector<std::string>& unreadable) {
    settings::ProxySettings proxy;
    proxy.host = singles.text(settings::kProxyHostKey);
    proxy.user = singles.text(settings::kProxyUserKey);
    const std::string* password = singles.find(settings::kProxyPasswordKey);
    proxy.hasPassword = password != nullptr;
    if (password != nullptr && settings::isCipherText(*password)) {
        proxy.cipheredPassword = *password;
    }
    proxy.port = singles.number(settings::kProxyPortKey, unreadable);
    proxy.type = singles.number(settings::kProxyTypeKey, unreadable);
    proxy.authentication = singles.number(settings::kProxyAuthenticationKey, unreadable);
    return proxy;
}

} // namespace

KeptFile::KeptFile(const std::string& path) : m_path(path) {
    const struct stat facts = factsOf(path);
    m_device = facts.st_dev;
    m_inode = facts.st_ino;
    m_database = openDatabaseReadOnly(path);
    setLockWait(*m_database, kLockWait);
    // The facts are older than the open file: when another one came in between, the next isInPlace finds it.
    static_cast<void>(version()); // reads the first page, so that what is no database is told here
}

bool KeptFile::isInPlace() const noexcept {
    struct stat facts {};
    return ::lstat(m_path.c_str(), &facts) == 0 && facts.st_dev == m_device && facts.st_ino == m_inode;
}

std::int64_t KeptFile::version() {
    return queryInteger(*m_database, "PRAGMA data_version");
}

void KeptFile::readSingles(SettingsSnapshot& into) {
    const Singles singles(*m_database);
    into.numbers.clear();
    into.unreadable.clear();
    for (const char* key : settings::kNumberKeys) {
        if (const std::optional<std::int32_t> number = singles.number(key, into.unreadable)) {
            into.numbers[key] = *number;
        }
    }
    into.proxy = proxyOf(singles, into.unreadable);
}

void KeptFile::readLists(SettingsSnapshot& into) {
    SettingsSnapshot lists;
    Bounds bounds;
    {
        const ReadTransaction oneTime(*m_database);
        Statement categories(*m_database, "select name, value from catblockinginfo order by rowid");
        while (categories.step()) {
            lists.categories.push_back({bounds.taken(categories.bytes(0)), numberOf(categories.bytes(1)).value_or(0)});
        }
        Statement urls(*m_database, "select name, value from allowblocksettings order by rowid");
        while (urls.step()) {
            // As the daemon reads it: the low 32 bits.
            lists.allowBlock.push_back({bounds.taken(urls.bytes(0)), static_cast<std::int32_t>(urls.integer(1))});
        }
        Statement ranges(*m_database, "select range from privateIPRange order by rowid");
        while (ranges.step()) {
            lists.privateRanges.push_back(bounds.taken(ranges.bytes(0)));
        }
    }
    into.categories = std::move(lists.categories);
    into.allowBlock = std::move(lists.allowBlock);
    into.privateRanges = std::move(lists.privateRanges);
}

std::uint64_t KeptFile::rowsOf(std::string_view list) {
    const char* const sql = list == "allow_block"  ? "select count(*) from allowblocksettings"
                            : list == "categories" ? "select count(*) from catblockinginfo"
                                                   : "select count(*) from privateIPRange";
    return static_cast<std::uint64_t>(queryInteger(*m_database, sql));
}

std::string KeptFile::check() {
    Statement check(*m_database, "PRAGMA quick_check(1)");
    const std::string words = check.step() ? std::string(check.bytes(0)) : "no answer";
    constexpr std::size_t most = 512;
    return words == "ok" ? std::string() : text::shortened(text::printable(words), most);
}

} // namespace Sentrel::keeper
