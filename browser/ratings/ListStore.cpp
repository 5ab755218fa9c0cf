// The directory of lists: NAME.list for each, and ratings.cdb compiled of them.
//
// What must stay so:
// - The list is kept before the database is compiled, so what was compiled last can be compiled again. A process that
// is
//   killed in between leaves both files whole, and the next change or update compiles what is there.
// - What is read at an update is a regular file and no link: others than root may be able to change what a path leads
// to.
// - Nothing of a file's content is told but the numbers of its lines.
#include "browser/ratings/ListStore.h"

#include "base/FileFailure.h"
#include "base/UniqueFd.h"
#include "browser/ratings/KeptList.h"
#include "browser/ratings/LineSource.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Sentrel::ratings {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0755;
constexpr const char* kEnding = ".list";

/// Makes the directory where there is none, and locks it.
UniqueFd lockedDirectory(const std::string& directory) {
    const bool isNew = ::mkdir(directory.c_str(), kDirectoryMode) == 0;
    if (isNew ? ::chmod(directory.c_str(), kDirectoryMode) != 0 : errno != EEXIST) { // whatever the umask says
        failFile(errno, directory, "cannot be made");
    }
    UniqueFd lock(::open((directory + "/.lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock.isOpen()) {
        failFile(errno, directory, "cannot be written");
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        throw UnusableList("another change of the rating lists is going on");
    }
    return lock;
}

/// What is gone from the directory stays gone after a power cut.
void syncDirectory(const std::string& directory) {
    const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.isOpen() || ::fsync(fd.get()) != 0) {
        failFile(errno, directory, "cannot be synced: a power cut may bring back what was taken out");
    }
}

UniqueFd openedList(const std::string& file, bool followsLinks) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (followsLinks ? 0 : O_NOFOLLOW)));
    struct stat facts {};
    if (!fd.isOpen() || ::fstat(fd.get(), &facts) != 0) {
        failFile(errno, file, "cannot be opened");
    }
    if (!S_ISREG(facts.st_mode)) {
        failFile(EINVAL, file, "is no regular file");
    }
    return fd;
}

/// When a file was last changed; now for what is no file, and for one from the future. A time before the epoch is none
/// that a file was changed at: it counts as the epoch.
std::chrono::sys_seconds dateOf(int fd) {
    struct stat facts {};
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    const bool isFile = ::fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode);
    const std::chrono::sys_seconds changed(std::chrono::seconds(facts.st_mtim.tv_sec));
    return isFile ? std::clamp(changed, std::chrono::sys_seconds(), now) : now;
}

void addBad(ListReport& report, BadLine line) {
    if (++report.bad <= kToldBadLines) {
        report.firstBad.push_back(std::move(line));
    }
}

/// What is lacking since line @p number hides the rest of the list: it is told however many bad lines there are.
void addHiding(ListReport& report, std::uint64_t number, const char* fault) {
    if (report.firstBad.size() == kToldBadLines) {
        report.firstBad.pop_back();
    }
    const auto behind = std::find_if(report.firstBad.begin(), report.firstBad.end(),
                                     [number](const BadLine& each) { return each.number > number; });
    report.firstBad.insert(behind, {number, fault});
    ++report.bad;
}

ListReport readInto(EntryList& entries, LineSource& lines, ListFormat format) {
    ListReport report;
    const std::unique_ptr<LineReader> reader = readerOf(format);
    const HostSink sink = [&entries](std::string_view host, Marks marks) { entries.add(host, marks); };
    std::uint64_t brokenSince = 0; // a line; 0: it is whole
    while (const auto line = lines.next()) {
        const LineReading reading =
            line->fault == nullptr ? reader->read(line->text, sink) : LineReading{LineKind::Bad, line->fault};
        report.passedOver += reading.kind == LineKind::PassedOver ? 1 : 0;
        if (reading.kind == LineKind::Bad) {
            addBad(report, {line->number, reading.fault});
        }
        brokenSince = reader->faultAtEnd() == nullptr ? 0 : brokenSince == 0 ? line->number : brokenSince;
    }
    if (brokenSince != 0) {
        addHiding(report, brokenSince, reader->faultAtEnd());
    }
    return report;
}

} // namespace

bool isListName(const std::string& name) {
    constexpr std::size_t longest = 64;
    const auto mayBeThere = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    };
    return !name.empty() && name.size() <= longest && name.front() != '.' && name.front() != '-' &&
           std::all_of(name.begin(), name.end(), mayBeThere);
}

std::string ListStore::pathOf(const std::string& name) const {
    if (!isListName(name)) {
        throw UnusableList(
            "a list cannot be called so: letters, digits, '-', '_' and '.', at most 64, no '.' or '-' first");
    }
    return m_directory + "/" + name + kEnding;
}

std::string ListStore::databasePath() const {
    return m_directory + "/ratings.cdb";
}

std::vector<std::string> ListStore::listPaths() const {
    std::vector<std::string> paths;
    std::error_code error;
    for (fs::directory_iterator at(m_directory, error), end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename();
        if (name.ends_with(kEnding) && isListName(at->path().stem())) {
            paths.push_back(at->path());
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        failFile(error.value(), m_directory, "cannot be read");
    }
    std::sort(paths.begin(), paths.end(), [](const std::string& left, const std::string& right) {
        return fs::path(left).stem() < fs::path(right).stem();
    });
    return paths;
}

ListReport ListStore::take(ListHead head, int fd) {
    EntryList entries;
    LineSource lines(fd, head.file.empty() ? "standard input" : head.file);
    ListReport report = readInto(entries, lines, head.format);
    entries.arrange(exceptionsBeatEntries(head.format));
    head.facts.count = entries.count();
    head.facts.date = dateOf(fd);
    report.facts = head.facts;
    if (head.facts.count == 0) {
        const std::string first = report.firstBad.empty() ? ""
                                                          : "; line " + std::to_string(report.firstBad[0].number) +
                                                                " " + report.firstBad[0].fault;
        throw UnusableList(std::string("it names no host in the format ") + nameOfFormat(head.format) + first);
    }
    writeKeptList(pathOf(head.facts.name), head, entries);
    return report;
}

ListReport ListStore::takeFile(ListHead head, bool isFirst) {
    const UniqueFd file = openedList(head.file, isFirst);
    return take(std::move(head), file.get());
}

void ListStore::compile() {
    const std::vector<std::string> lists = listPaths();
    if (lists.empty()) {
        if (::unlink(databasePath().c_str()) != 0 && errno != ENOENT) {
            failFile(errno, databasePath(), "cannot be removed: its lists go on being used");
        }
        syncDirectory(m_directory); // the lists in it, too
        return;
    }
    m_size = buildDatabase(lists, databasePath());
}

ListReport ListStore::import(ListHead head, int inputFd) {
    const std::string path = pathOf(head.facts.name);
    const UniqueFd lock = lockedDirectory(m_directory);
    const std::vector<std::string> others = listPaths();
    if (others.size() >= kMaxLists && std::find(others.begin(), others.end(), path) == others.end()) {
        throw UnusableList("there are 64 lists, and no more can be");
    }
    const bool isFile = !head.file.empty();
    head.file = isFile ? fs::weakly_canonical(head.file).string() : "";
    ListReport report = isFile ? takeFile(std::move(head), true) : take(std::move(head), inputFd);
    compile();
    return report;
}

std::vector<UpdateReport> ListStore::update(const std::string& name) {
    const UniqueFd lock = lockedDirectory(m_directory);
    std::vector<UpdateReport> reports;
    for (const std::string& path : name.empty() ? listPaths() : std::vector{pathOf(name)}) {
        UpdateReport report{fs::path(path).stem(), {}, ""};
        try {
            ListHead head = KeptList(path).head();
            if (head.file.empty()) {
                throw UnusableList("it came from no file; import it again");
            }
            report.report = takeFile(std::move(head), false);
        } catch (const UnusableList& error) {
            report.why = error.what();
        } catch (const std::system_error& error) {
            report.why = error.what();
        }
        reports.push_back(std::move(report));
    }
    compile();
    return reports;
}

bool ListStore::remove(const std::string& name) {
    const std::string path = pathOf(name);
    const UniqueFd lock = lockedDirectory(m_directory);
    if (::unlink(path.c_str()) != 0) {
        if (errno != ENOENT) {
            failFile(errno, path, "cannot be removed");
        }
        return false;
    }
    compile();
    return true;
}

std::vector<ListHead> ListStore::lists() const {
    std::vector<ListHead> heads;
    for (const std::string& path : listPaths()) {
        heads.push_back(KeptList(path).head());
    }
    return heads;
}

} // namespace Sentrel::ratings
