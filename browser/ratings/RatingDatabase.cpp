// Reading the database: a constant one as tinycdb writes it, its records by the names of hosts.
//
// A record's value is two numbers of 16 bits, the lower byte first: the class of the name itself, and that of the names
// below it which have no record. What the lists say of the names above is in both already, so a look-up takes the first
// record that it finds, from the host upwards.
//
// What must stay so:
// - Nothing in the file is believed. What tinycdb finds lies in the file; the tables are looked at here once, when it
//   is mapped, so that a file that was cut is refused as a whole.
// - The file is replaced and never written in place: who has it mapped keeps the old one.
#include "browser/ratings/RatingDatabase.h"

#include "base/FileFailure.h"
#include "base/UniqueFd.h"
#include "browser/ratings/HostNames.h"

#include <algorithm>
#include <array>
#include <cdb.h>
#include <fcntl.h>
#include <limits>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Sentrel::ratings {
namespace {

static_assert(crypto_shorthash_KEYBYTES == std::tuple_size_v<NameKey> &&
              crypto_shorthash_BYTES == sizeof(std::uint64_t));

constexpr unsigned kTables = 256;
constexpr unsigned kTablePointer = 8; // bytes: where it begins, and how many slots it has
constexpr unsigned kSlot = 8;
constexpr unsigned kValueBytes = 4;
constexpr mode_t kOthersWrite = 022;

std::uint16_t numberAt(const unsigned char* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8U);
}

/// Whether all tables lie in the file, behind what points to them.
bool hasWholeTables(const cdb& map) {
    constexpr unsigned begin = kTables * kTablePointer;
    const auto* const pointers = static_cast<const unsigned char*>(cdb_get(&map, begin, 0));
    for (unsigned table = 0; pointers != nullptr && table < kTables; ++table) {
        const std::uint64_t at = cdb_unpack(pointers + table * kTablePointer);
        const std::uint64_t slots = cdb_unpack(pointers + table * kTablePointer + kTablePointer / 2);
        if (at < begin || at + slots * kSlot > map.cdb_fsize) {
            return false;
        }
    }
    return pointers != nullptr;
}

UniqueFd openedDatabase(const std::string& path) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        failFile(errno, path, "cannot be opened");
    }
    return file;
}

} // namespace

std::uint64_t hashOfName(std::string_view name, const NameKey& key) {
    std::array<unsigned char, crypto_shorthash_BYTES> bytes{};
    crypto_shorthash(bytes.data(), reinterpret_cast<const unsigned char*>(name.data()), name.size(), key.data());
    std::uint64_t hash = 0;
    for (std::size_t at = bytes.size(); at > 0; --at) {
        hash = hash << 8U | bytes[at - 1];
    }
    return hash;
}

/// Threads: any; each look-up works on a copy. Owner: its database.
struct RatingDatabase::Map {
    explicit Map(int fd) {
        struct stat facts {};
        if (::fstat(fd, &facts) != 0) {
            failFile(errno, "the rating database", "cannot be seen");
        }
        const bool isTrusted =
            (facts.st_uid == 0 || facts.st_uid == ::geteuid()) && (facts.st_mode & kOthersWrite) == 0;
        if (!S_ISREG(facts.st_mode) || !isTrusted) {
            throw UnusableList("others than root may write it");
        }
        if (facts.st_size > std::numeric_limits<std::uint32_t>::max() || cdb_init(&records, fd) != 0) {
            throw UnusableList("it is no database");
        }
        if (!hasWholeTables(records)) {
            cdb_free(&records);
            throw UnusableList("it is damaged, or cut");
        }
    }
    ~Map() { cdb_free(&records); }
    Map(const Map&) = delete;
    Map& operator=(const Map&) = delete;

    cdb records{};
};

RatingDatabase::RatingDatabase(const std::string& path) : RatingDatabase(openedDatabase(path).get()) {}

RatingDatabase::RatingDatabase(int fd) : m_map(std::make_unique<Map>(fd)) {
    readHead();
}

RatingDatabase::~RatingDatabase() = default;

void RatingDatabase::readHead() {
    cdb search = m_map->records;
    if (cdb_find(&search, kHeadRecord.data(), static_cast<unsigned>(kHeadRecord.size())) <= 0) {
        throw UnusableList("it is damaged: it has no head");
    }
    const auto* const text = static_cast<const char*>(cdb_getdata(&search));
    if (text == nullptr) {
        throw UnusableList("it is damaged: its head is cut");
    }
    m_head = readDatabaseHead({text, cdb_datalen(&search)});
    for (const ListPlaces& places : m_head.classes) {
        m_classes.push_back(ratingBy(m_head.lists, places));
    }
}

std::optional<std::size_t> RatingDatabase::classOf(const browsing::WebUrl& url) const {
    const bool isAlone = url.address.has_value() || url.host.starts_with('[');
    std::string_view name = url.host;
    for (bool isHost = true; !name.empty(); isHost = false) {
        cdb search = m_map->records;
        const int found =
            name.size() > kMaxHostBytes ? 0 : cdb_find(&search, name.data(), static_cast<unsigned>(name.size()));
        if (found != 0) {
            const auto* const value = found > 0 && cdb_datalen(&search) == kValueBytes
                                          ? static_cast<const unsigned char*>(cdb_getdata(&search))
                                          : nullptr;
            return value == nullptr ? std::nullopt : std::optional<std::size_t>(numberAt(value + (isHost ? 0 : 2)));
        }
        const std::size_t dot = isAlone ? std::string_view::npos : name.find('.');
        name.remove_prefix(dot == std::string_view::npos ? name.size() : dot + 1);
    }
    return 0;
}

const SiteRating* RatingDatabase::find(const browsing::WebUrl& url) const {
    const std::optional<std::size_t> found = classOf(url);
    return found && *found < m_classes.size() ? &m_classes[*found] : nullptr;
}

const ListPlaces& RatingDatabase::listsOf(const SiteRating& found) const {
    return m_head.classes.at(static_cast<std::size_t>(&found - m_classes.data()));
}

RatingTable RatingDatabase::table() const {
    RatingTable table{m_head.key, m_classes, {}};
    cdb records = m_map->records;
    unsigned at = 0;
    cdb_seqinit(&at, &records);
    // Lengths of a damaged record may add up to nothing, or lead back.
    for (unsigned before = at; cdb_seqnext(&at, &records) > 0 && at > before; before = at) {
        const auto* const name = static_cast<const char*>(cdb_getkey(&records));
        const auto* const value = static_cast<const unsigned char*>(cdb_getdata(&records));
        if (name == nullptr || value == nullptr || cdb_datalen(&records) != kValueBytes) {
            continue; // the head
        }
        const RatedName rated{hashOfName({name, cdb_keylen(&records)}, m_head.key), numberAt(value),
                              numberAt(value + 2)};
        if (rated.itself < m_classes.size() && rated.below < m_classes.size()) {
            table.names.push_back(rated);
        }
    }
    const auto byHash = [](const RatedName& left, const RatedName& right) { return left.hash < right.hash; };
    const auto isSame = [](const RatedName& left, const RatedName& right) { return left.hash == right.hash; };
    std::sort(table.names.begin(), table.names.end(), byHash);
    table.names.erase(std::unique(table.names.begin(), table.names.end(), isSame), table.names.end());
    return table;
}

} // namespace Sentrel::ratings
