#include "platform/consoleuser/ConsoleUser.h"

#include <pwd.h>
#include <systemd/sd-login.h>
#include <utmpx.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct ConsoleUserName {
    std::string name;
};

namespace {

struct Account {
    std::string name;
    uid_t uid;
    gid_t gid;
};

/// Calls a reentrant look-up of passwd(5) with a buffer that is large enough.
template <class Lookup>
std::optional<Account> lookUp(Lookup lookup) {
    constexpr std::size_t firstBuffer = 1024;
    constexpr std::size_t largestBuffer = std::size_t{1} << 20;
    for (std::size_t size = firstBuffer; size <= largestBuffer; size *= 2) {
        std::vector<char> buffer(size);
        passwd entry{};
        passwd* found = nullptr;
        const int result = lookup(&entry, buffer.data(), buffer.size(), &found);
        if (result == ERANGE) {
            continue;
        }
        if (found == nullptr) {
            return std::nullopt;
        }
        return Account{found->pw_name, found->pw_uid, found->pw_gid};
    }
    return std::nullopt;
}

/// Whether a session is a person's; the screen of a login manager is a session too, of another class.
bool isUserSession(const char* session) {
    char* kind = nullptr;
    const int result = sd_session_get_class(session, &kind);
    const std::unique_ptr<char, decltype(&std::free)> owned(kind, &std::free);
    return result < 0 || std::string_view(kind) == "user";
}

std::optional<Account> seatUser() {
    uid_t uid = 0;
    char* session = nullptr;
    const int result = sd_seat_get_active("seat0", &session, &uid);
    const std::unique_ptr<char, decltype(&std::free)> owned(session, &std::free);
    if (result < 0 || !isUserSession(session)) {
        return std::nullopt;
    }
    return lookUp([uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return getpwuid_r(uid, entry, buffer, size, found);
    });
}

/// Whether an entry of utmp is a login at the machine itself: a virtual terminal or a local display.
bool isLocalLogin(const utmpx& entry) {
    const std::string_view line(entry.ut_line, strnlen(entry.ut_line, sizeof entry.ut_line));
    return entry.ut_type == USER_PROCESS && (line.starts_with("tty") || line.starts_with(":"));
}

std::optional<Account> utmpUser() {
    std::string name;
    decltype(utmpx::ut_tv.tv_sec) newest = 0;
    setutxent();
    while (const utmpx* entry = getutxent()) {
        if (isLocalLogin(*entry) && (name.empty() || entry->ut_tv.tv_sec >= newest)) {
            name.assign(entry->ut_user, strnlen(entry->ut_user, sizeof entry->ut_user));
            newest = entry->ut_tv.tv_sec;
        }
    }
    endutxent();
    if (name.empty()) {
        return std::nullopt;
    }
    return lookUp([&name](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return getpwnam_r(name.c_str(), entry, buffer, size, found);
    });
}

} // namespace

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef /*store*/, uid_t* uid, gid_t* gid) {
    std::optional<Account> account = seatUser();
    if (!account) {
        account = utmpUser();
    }
    if (!account) {
        return nullptr;
    }
    if (uid != nullptr) {
        *uid = account->uid;
    }
    if (gid != nullptr) {
        *gid = account->gid;
    }
    return new ConsoleUserName{std::move(account->name)};
}

bool CFStringGetCString(CFStringRef string, char* buffer, long bufferSize, unsigned encoding) {
    if (encoding != kCFStringEncodingUTF8 || bufferSize <= 0 ||
        string->name.size() >= static_cast<unsigned long>(bufferSize)) {
        return false;
    }
    std::memcpy(buffer, string->name.c_str(), string->name.size() + 1);
    return true;
}

void CFRelease(CFTypeRef object) {
    delete static_cast<CFStringRef>(object);
}
