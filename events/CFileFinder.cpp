#include "events/CFileFinder.h"

#include "base/Paths.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>

namespace NOrvanta {
namespace {

constexpr const char* kDataDirectory = "/.orvanta/";
constexpr const char* kDataFile = "local.bin";

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

struct Latest {
    std::string name;
    timespec modified{};
};

bool isNewer(const timespec& left, const timespec& right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec > right.tv_sec : left.tv_nsec > right.tv_nsec;
}

bool FindLatest(const std::string& home, void* context) {
    auto& latest = *static_cast<Latest*>(context);
    const std::string name = home + kDataDirectory + kDataFile;
    struct stat status {};
    if (stat(name.c_str(), &status) == 0 && (latest.name.empty() || isNewer(status.st_mtim, latest.modified))) {
        latest.name = name;
        latest.modified = status.st_mtim;
    }
    return true;
}

int makeDirectory(const std::string& path) {
    constexpr mode_t mode = 0755;
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        return (status.st_mode & S_IRWXU) != 0 ? CFileFinder::Success : CFileFinder::SystemFailure;
    }
    const std::string withoutSlash = path.substr(0, path.size() - 1);
    if (errno == ENOTDIR && unlink(withoutSlash.c_str()) != 0) {
        return CFileFinder::SystemFailure;
    }
    return mkdir(path.c_str(), mode) == 0 ? CFileFinder::Success : CFileFinder::SystemFailure;
}

} // namespace

int CFileFinder::GetMyHome(std::string& home) {
    char buffer[1024];
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) {
        return SystemFailure;
    }
    home = std::string(found->pw_dir) + kDataDirectory;
    return Success;
}

int CFileFinder::EnumHomes(HomeCallback callback, void* context) {
    if (callback == nullptr) {
        return NoCallback;
    }
    const std::string users = Sentrel::paths::underRoot("/Users");
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(users.c_str()));
    if (directory == nullptr) {
        return SystemFailure;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.' && !callback(users + "/" + entry->d_name, context)) {
            break;
        }
    }
    return Success;
}

int CFileFinder::GetDefaultName(std::string& name, bool check) {
    const int result = GetMyHome(name);
    if (result != Success) {
        return result;
    }
    name += kDataFile;
    if (!check) {
        return Success;
    }
    struct stat status {};
    if (stat(name.c_str(), &status) != 0) {
        return errno == ENOENT ? NoSuchFile : SystemFailure;
    }
    return S_ISREG(status.st_mode) && (status.st_mode & S_IRUSR) != 0 ? Success : NoSuchFile;
}

int CFileFinder::GetLatestName(std::string& name) {
    Latest latest;
    const int result = EnumHomes(FindLatest, &latest);
    if (result != Success) {
        return result;
    }
    if (latest.name.empty()) {
        return NoSuchFile;
    }
    name = latest.name;
    return Success;
}

int CFileFinder::GetDefaultPath(std::string& path, bool make) {
    const int result = GetMyHome(path);
    return result == Success && make ? makeDirectory(path) : result;
}

bool CFileFinder::FileExists(const std::string& name) {
    struct stat status {};
    return stat(name.c_str(), &status) == 0;
}

int CFileFinder::GetInstallPath(std::string& /*path*/) {
    return NotImplemented;
}

} // namespace NOrvanta
