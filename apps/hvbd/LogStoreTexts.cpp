#include "apps/hvbd/LogStoreTexts.h"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>

namespace HVB::hub {
namespace {

std::string moveAway(const std::string& path) {
    return fmt::format("Move it away together with {0}-wal and {0}-shm; the next record then makes a new one.", path);
}

std::string reasonOf(const Sentrel::DatabaseError& error) {
    return error.systemError() == 0
               ? error.what()
               : fmt::format("{}: {}", error.what(), std::system_category().message(error.systemError()));
}

} // namespace

std::string explain(const std::string& path, const Sentrel::DatabaseError& error) {
    switch (error.code()) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return fmt::format("{0} is locked by another program. End that program (fuser {0} names it).", path);
    case SQLITE_FULL:
        return fmt::format("no space is left for {}. Free some on its file system.", path);
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return fmt::format("{} is damaged ({}). {}", path, error.what(), moveAway(path));
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return fmt::format("{0} cannot be written ({1}). Let hvbd's user write it and its directory.", path,
                           reasonOf(error));
    case SQLITE_ERROR:
    case SQLITE_SCHEMA:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
        return fmt::format("{} is not laid out as hvbd needs it ({}). {}", path, error.what(), moveAway(path));
    default:
        return fmt::format("{} failed ({}). Check its file system and the system log.", path, reasonOf(error));
    }
}

std::string explainFile(const std::string& path, int error) {
    switch (error) {
    case EISDIR:
        return fmt::format("{} is a directory. Move it away.", path);
    case ELOOP:
        return fmt::format("{} is a symbolic link, which hvbd does not follow. Move it away.", path);
    case EINVAL:
    case ENXIO:
        return fmt::format("{} is not a regular file. Move it away.", path);
    case ENOENT:
    case ENOTDIR:
        return fmt::format("the directory of {} does not exist. Make it, owned by hvbd's user.", path);
    case EACCES:
    case EPERM:
    case EROFS:
        return fmt::format("{} cannot be written ({}). Let hvbd's user write it and its directory.", path,
                           std::system_category().message(error));
    case ENOSPC:
    case EDQUOT:
        return fmt::format("no space is left for {}. Free some on its file system.", path);
    default:
        return fmt::format("{} cannot be opened ({}).", path, std::system_category().message(error));
    }
}

std::string explainNewer(const std::string& path, std::int64_t version) {
    return fmt::format("{} was written by a newer hvbd (layout {}). Install that one again. Or: {}", path, version,
                       moveAway(path));
}

std::string explainForeign(const std::string& path) {
    return fmt::format("{} is the database of another program. {}", path, moveAway(path));
}

std::string explainReplaced(const std::string& path) {
    return fmt::format("{} was taken away while records were written to it. Leave it in place.", path);
}

std::string explainPinned(const std::string& path) {
    return fmt::format(
        "a program reads {0} without end, so that {0}-wal cannot be emptied. End that program (fuser {0} "
        "names it).",
        path);
}

std::string explainOrphans(const std::string& path, int kept) {
    return fmt::format("{0} was moved away {1} times, and its write-ahead logs are kept as {0}-wal.orphan to "
                       "-wal.orphan-{2}. Put each beside its file or remove it.",
                       path, kept + 1, kept);
}

} // namespace HVB::hub
