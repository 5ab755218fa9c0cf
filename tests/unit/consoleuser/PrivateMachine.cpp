#include "tests/unit/consoleuser/PrivateMachine.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <utmpx.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace testing_support {
namespace {

void require(bool done, const char* what) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void write(const std::string& path, const std::string& text, std::ios::openmode mode = std::ios::app) {
    std::ofstream file(path, mode);
    file << text;
    file.flush();
    require(file.good(), path.c_str());
}

/// In a user namespace of its own the test is root over its mounts, and no more than itself elsewhere.
void enterPrivateMounts() {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) != 0) {
        require(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "a mount namespace of the test's own");
        write("/proc/self/setgroups", "deny", std::ios::out);
        write("/proc/self/uid_map", "0 " + user + " 1", std::ios::out);
        write("/proc/self/gid_map", "0 " + group + " 1", std::ios::out);
    }
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keeping mounts private");
}

template <std::size_t Size>
void put(char (&field)[Size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

} // namespace

PrivateMachine::PrivateMachine() {
    enterPrivateMounts();
    require(mount("none", "/run", "tmpfs", 0, nullptr) == 0, "an empty /run");
    std::filesystem::create_directories("/run/systemd/seats");
    std::filesystem::create_directories("/run/systemd/sessions");
    const std::string accounts = m_directory.file("passwd");
    write(accounts, "root:x:0:0::/root:/bin/sh\n");
    require(mount(accounts.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0, "own accounts");
    const std::string logins = m_directory.file("utmp");
    write(logins, "");
    require(utmpxname(logins.c_str()) == 0, "a utmp file");
}

PrivateMachine::~PrivateMachine() {
    umount("/etc/passwd");
    umount("/run");
}

void PrivateMachine::account(const std::string& name, unsigned uid, unsigned gid, const std::string& comment) {
    write("/etc/passwd",
          name + ":x:" + std::to_string(uid) + ":" + std::to_string(gid) + ":" + comment + ":/:/bin/sh\n");
}

void PrivateMachine::activeSession(const std::string& session, unsigned uid, const std::string& kind) {
    activeSessionWithoutState(session, uid);
    write("/run/systemd/sessions/" + session, "UID=" + std::to_string(uid) + "\nCLASS=" + kind + "\n");
}

void PrivateMachine::activeSessionWithoutState(const std::string& session, unsigned uid) {
    write("/run/systemd/seats/seat0", "IS_SEAT0=1\nACTIVE=" + session + "\nACTIVE_UID=" + std::to_string(uid) + "\n");
}

void PrivateMachine::emptySeat() {
    write("/run/systemd/seats/seat0", "IS_SEAT0=1\n");
}

void PrivateMachine::login(const std::string& name, const std::string& line, int seconds, short type) {
    utmpx entry{};
    entry.ut_type = type;
    entry.ut_tv.tv_sec = seconds;
    put(entry.ut_user, name);
    put(entry.ut_line, line);
    std::ofstream(m_directory.file("utmp"), std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(&entry), sizeof entry);
}

} // namespace testing_support
