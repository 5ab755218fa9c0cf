#include "base/FileStamp.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>

namespace Sentrel {
namespace {

using std::chrono::nanoseconds;

std::int64_t sinceEpoch(const timespec& time) {
    return nanoseconds(std::chrono::seconds(time.tv_sec)).count() + time.tv_nsec;
}

FileStamp::Facts factsIn(const struct stat& facts) {
    return {facts.st_dev, facts.st_ino, facts.st_size, sinceEpoch(facts.st_mtim), sinceEpoch(facts.st_ctim)};
}

} // namespace

std::optional<FileStamp> stampOf(const std::string& path) {
    struct stat link {};
    struct stat file {};
    if (::lstat(path.c_str(), &link) != 0 || ::stat(path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    return FileStamp{{factsIn(link), factsIn(file)}};
}

bool hasRested(const FileStamp& stamp) {
    const auto now = nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    // A time that is still to come, after the clock was set back, is no rest either.
    return std::all_of(stamp.facts.begin(), stamp.facts.end(),
                       [now](const auto& facts) { return facts.changed < now - nanoseconds(kFileRest).count(); });
}

} // namespace Sentrel
