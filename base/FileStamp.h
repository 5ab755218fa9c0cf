// Whether a file is as it was, without reading it.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel {

/// What the file system tells of what is at a path, and of the file behind it where that is a link. Two stamps that are
/// equal mean the same content, when the first was taken of a file that had rested.
struct FileStamp {
    struct Facts {
        dev_t device = 0;
        ino_t inode = 0;
        std::int64_t size = 0;
        std::int64_t modified = 0; ///< nanoseconds since the epoch
        std::int64_t changed = 0;  ///< the same, of the content or of the rights

        bool operator==(const Facts&) const = default;
    };
    std::array<Facts, 2> facts;

    bool operator==(const FileStamp&) const = default;
};

/// The stamp of what is at @p path; none when nothing is, or it cannot be seen.
std::optional<FileStamp> stampOf(const std::string& path);

/// The coarsest clock of a file system that is stored on here: later changes have later times.
inline constexpr std::chrono::seconds kFileRest{1};

/// Whether the last change behind @p stamp is so long ago that another one would have given another time. Right after a
/// change the file system's clock may not have gone on yet.
bool hasRested(const FileStamp& stamp);

} // namespace Sentrel
