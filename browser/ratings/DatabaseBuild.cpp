// Compiling the lists.
//
// All lists are in the order of their keys, in which a name stands right behind those that it is below. So one walk
// through all of them at once meets each name after every name above it, and a stack of these tells which lists cover
// it. A record holds all of that, for the name itself and for the names below it: a look-up needs no other record.
// Names of which their record would say what is said of them without it have none.
//
// Sets of lists are numbers of 64 bits while this goes on. The sets that occur get their numbers, the classes, in the
// order in which they are met.
#include "browser/ratings/DatabaseBuild.h"

#include "base/FileFailure.h"
#include "base/FileWriting.h"
#include "browser/ratings/HostNames.h"
#include "browser/ratings/KeptList.h"
#include "browser/ratings/RatingDatabase.h"

#include <array>
#include <cdb.h>
#include <cerrno>
#include <limits>
#include <map>
#include <memory>
#include <sodium.h>
#include <sys/stat.h>

namespace Sentrel::ratings {
namespace {

using ListSet = std::uint64_t;
static_assert(kMaxLists == std::numeric_limits<ListSet>::digits);

/// Threads: one. Owner: the operation.
class DatabaseWriter {
public:
    explicit DatabaseWriter(const std::string& path) : m_path(path), m_file(path) {
        if (cdb_make_start(&m_make, m_file.fd()) != 0) {
            failFile(errno, m_path, "cannot be written");
        }
    }
    ~DatabaseWriter() {
        if (!m_isFinished) {
            cdb_make_finish(&m_make); // gives its memory back; the file goes
        }
    }
    DatabaseWriter(const DatabaseWriter&) = delete;
    DatabaseWriter& operator=(const DatabaseWriter&) = delete;

    void add(std::string_view name, std::string_view value) {
        if (cdb_make_add(&m_make, name.data(), static_cast<unsigned>(name.size()), value.data(),
                         static_cast<unsigned>(value.size())) != 0) {
            fail();
        }
    }

    /// @return bytes of the file.
    std::uint64_t commit() {
        m_isFinished = true;
        struct stat facts {};
        if (cdb_make_finish(&m_make) != 0 || ::fstat(m_file.fd(), &facts) != 0) {
            fail();
        }
        m_file.commit();
        return static_cast<std::uint64_t>(facts.st_size);
    }

private:
    [[noreturn]] void fail() const {
        if (errno == ENOMEM) { // also: an address of 32 bits does not reach further
            throw UnusableList("the lists together are too long for the database, which has 4 GiB at the most");
        }
        failFile(errno, m_path, "cannot be written");
    }

    const std::string m_path;
    FileReplacement m_file;
    cdb_make m_make{};
    bool m_isFinished = false;
};

/// The numbers of the sets that occur.
class Classes {
public:
    std::uint16_t numberOf(ListSet set) {
        const auto [found, isNew] = m_numbers.try_emplace(set, static_cast<std::uint16_t>(m_numbers.size()));
        if (m_numbers.size() > std::numeric_limits<std::uint16_t>::max()) {
            throw UnusableList("the lists overlap in more than 65535 ways");
        }
        return found->second;
    }

    std::vector<ListPlaces> places() const {
        std::vector<ListPlaces> result(m_numbers.size());
        for (const auto& [set, number] : m_numbers) {
            for (std::size_t list = 0; list < kMaxLists; ++list) {
                if ((set >> list & 1U) != 0) {
                    result[number].push_back(list);
                }
            }
        }
        return result;
    }

private:
    std::map<ListSet, std::uint16_t> m_numbers{{0, std::uint16_t{0}}};
};

/// One walk through all lists.
/// Threads: one. Owner: the operation; lists and writer outlive it.
class Walk {
public:
    Walk(std::vector<std::unique_ptr<KeptList>>& lists, DatabaseWriter& writer) : m_lists(lists), m_writer(writer) {}

    /// Writes the records. @return how many.
    std::uint64_t run() {
        while (takeSmallestKey()) {
            while (!m_above.empty() && !isBelow(m_key, m_above.back().key)) {
                m_above.pop_back();
            }
            const ListSet inherited = m_above.empty() ? 0 : m_above.back().below;
            ListSet itself = inherited;
            ListSet below = inherited;
            takeEntries(itself, below);
            if (itself != inherited || below != inherited) {
                write(itself, below);
            }
            m_above.push_back({m_key, below});
        }
        return m_names;
    }

    const Classes& classes() const { return m_classes; }

private:
    struct Above {
        std::string key;
        ListSet below;
    };

    bool takeSmallestKey() {
        const KeptList* smallest = nullptr;
        for (const auto& list : m_lists) {
            if (!list->isAtEnd() && (smallest == nullptr || list->key() < smallest->key())) {
                smallest = list.get();
            }
        }
        m_key = smallest == nullptr ? "" : smallest->key();
        return smallest != nullptr;
    }

    void takeEntries(ListSet& itself, ListSet& below) {
        for (std::size_t at = 0; at < m_lists.size(); ++at) {
            KeptList& list = *m_lists[at];
            if (!list.isAtEnd() && list.key() == m_key) {
                const ListSet bit = ListSet{1} << at;
                itself = (list.marks() & kNotItself) != 0 ? itself & ~bit : itself;
                below = (list.marks() & kNotBelow) != 0 ? below & ~bit : below;
                itself |= (list.marks() & kItself) != 0 ? bit : 0;
                below |= (list.marks() & kBelow) != 0 ? bit : 0;
                list.advance();
            }
        }
    }

    void write(ListSet itself, ListSet below) {
        std::string value;
        for (const std::uint16_t number : {m_classes.numberOf(itself), m_classes.numberOf(below)}) {
            value.push_back(static_cast<char>(number & 0xFFU));
            value.push_back(static_cast<char>(number >> 8U));
        }
        m_writer.add(hostOfKey(m_key), value);
        ++m_names;
    }

    std::vector<std::unique_ptr<KeptList>>& m_lists;
    DatabaseWriter& m_writer;
    Classes m_classes;
    std::string m_key;
    std::vector<Above> m_above;
    std::uint64_t m_names = 0;
};

} // namespace

DatabaseSize buildDatabase(const std::vector<std::string>& paths, const std::string& path) {
    if (paths.size() > kMaxLists) {
        throw UnusableList("there are more than 64 lists");
    }
    if (sodium_init() < 0) {
        failFile(EIO, path, "the system has no random numbers to give");
    }
    std::vector<std::unique_ptr<KeptList>> lists;
    DatabaseHead head;
    for (const std::string& each : paths) {
        lists.push_back(std::make_unique<KeptList>(each));
        head.lists.push_back(lists.back()->head().facts);
    }
    randombytes_buf(head.key.data(), head.key.size());
    DatabaseWriter writer(path);
    Walk walk(lists, writer);
    DatabaseSize size{walk.run(), 0};
    head.classes = walk.classes().places();
    writer.add(kHeadRecord, textOf(head));
    size.bytes = writer.commit();
    return size;
}

} // namespace Sentrel::ratings
