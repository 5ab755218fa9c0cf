#include "tests/unit/store/SettingsFile.h"

#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

using testing_support::ChildOptions;
using testing_support::ChildProcess;
using testing_support::patience;
using testing_support::readFile;

namespace {

// Written down here once more: these are what the code under test is held against.
constexpr std::array<const char*, 4> kCreateTables{
    "create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));",
    "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name));",
    "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name));",
    "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range));",
};

} // namespace

SettingsFile::SettingsFile() {
    m_path = beside("product.db");
}

std::string SettingsFile::sqlite(const std::string& sql) const {
    const std::string answer = beside("answer");
    std::filesystem::remove(answer);
    ChildOptions options;
    options.arguments = {"-batch", "-bail", m_path, sql};
    options.outputFile = answer;
    ChildProcess program("sqlite3", options);
    const auto status = program.waitUntil(patience());
    return status == 0 ? program.output() : "failed: " + program.output();
}

void SettingsFile::layOut(std::optional<int> missing) const {
    std::string sql;
    for (int type = 0; type < int(kCreateTables.size()); ++type) {
        sql += type == missing ? "" : kCreateTables[std::size_t(type)];
    }
    if (const std::string answer = sqlite(sql); !answer.empty()) {
        throw std::runtime_error("cannot lay out the file: " + answer);
    }
}

void SettingsFile::fillWith(const std::string& bytes) const {
    std::ofstream(m_path, std::ios::binary) << bytes;
}

std::string SettingsFile::bytes() const {
    return readFile(m_path);
}

// The program reads its commands from a pipe that stays open, and so keeps the lock; what comes after the first
// failure it does not do.
ForeignLock::ForeignLock(const SettingsFile& file, const std::string& begin)
    : m_commandsPath(file.beside("commands")), m_readyPath(file.beside("locked")) {
    if (mkfifo(m_commandsPath.c_str(), 0600) != 0) {
        throw std::system_error(errno, std::system_category(), "mkfifo");
    }
    m_commands = ::open(m_commandsPath.c_str(), O_RDWR | O_CLOEXEC);
    ChildOptions options;
    options.arguments = {"-batch", "-bail", file.path(), ".read " + m_commandsPath};
    m_holder.emplace("sqlite3", options);
    const std::string commands = begin + ";\n.output " + m_readyPath + "\n";
    const bool told = ::write(m_commands, commands.data(), commands.size()) == ssize_t(commands.size());
    if (!told || !testing_support::eventually([&] { return std::filesystem::exists(m_readyPath); })) {
        throw std::runtime_error("the file cannot be locked");
    }
}

ForeignLock::~ForeignLock() {
    release();
    ::close(m_commands);
    std::filesystem::remove(m_commandsPath);
    std::filesystem::remove(m_readyPath);
}

void ForeignLock::release() {
    m_holder.reset(); // killed and reaped
}
