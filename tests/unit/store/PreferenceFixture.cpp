#include "tests/unit/store/PreferenceFixture.h"

#include "base/UserDBPath.h"
#include "daemon/Trace.h"
#include "tests/support/FlowLines.h"
#include "tests/support/FreshStart.h"
#include "tests/support/TestInstallRoot.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace testing_support {

std::function<bool(std::string& path)>& settingsPath() {
    return freshForEachTest<std::function<bool(std::string & path)>>();
}

PreferenceFixture::PreferenceFixture() {
    setInstallRoot(m_directory.path());
    std::filesystem::create_directories(std::filesystem::path(file()).parent_path());
    std::filesystem::create_directories(std::filesystem::path(configurationFile()).parent_path());
    writeConfiguration("true", "information");
    settingsPath() = [this](std::string& path) {
        path = file();
        return true;
    };
}

PreferenceFixture::~PreferenceFixture() {
    Sentrel::STPreferenceController::releaseInstance();
}

void PreferenceFixture::writeConfiguration(const std::string& syslogEnable, const std::string& logLevel) const {
    std::ofstream(configurationFile()) << "<HVConfiguration><SyslogEnable>" << syslogEnable
                                       << "</SyslogEnable><LogLevel>" << logLevel << "</LogLevel></HVConfiguration>";
}

void PreferenceFixture::makeTables() const {
    sql("create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));"
        "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name));"
        "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name));"
        "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range))");
}

std::string PreferenceFixture::sql(const std::string& statement) const {
    const std::string command = "sqlite3 '" + file() + "' \"" + statement + "\" 2>&1";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (pipe == nullptr) {
        throw std::runtime_error("the sqlite3 program cannot be run");
    }
    std::string output;
    std::array<char, 4096> buffer{};
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) {
        output.append(buffer.data(), got);
    }
    output.erase(output.find_last_not_of('\n') + 1);
    return output;
}

std::string PreferenceFixture::stored(const std::string& key) const {
    return sql("select typeof(value) || ' ' || hex(value) from vxsetting where hex(name) = hex('" + key + "') || '00'");
}

Sentrel::STPreferenceController& PreferenceFixture::restarted() {
    Sentrel::STPreferenceController::releaseInstance();
    return controller();
}

Lines PreferenceFixture::leveled(const std::function<void()>& arrange, const std::function<void()>& act) {
    // The flow speaks only for the act, so that what arranging writes is not taken for its lines.
    return leveledLines(configFlowvalue, [&] {
        const int level = configFlowvalue;
        configFlowvalue = 0;
        Sentrel::STPreferenceController::releaseInstance();
        arrange();
        configFlowvalue = level;
        testing::internal::CaptureStdout(); // what is printed is looked at elsewhere
        act();
        static_cast<void>(testing::internal::GetCapturedStdout());
    });
}

std::string PreferenceFixture::printed(const std::function<void()>& act) {
    testing::internal::CaptureStdout();
    act();
    return testing::internal::GetCapturedStdout();
}

} // namespace testing_support

namespace NPlgHelper {

bool GetUserDBPath(char* buffer, unsigned long size) {
    std::string path;
    if (!testing_support::settingsPath()(path)) {
        return false;
    }
    if (path.size() >= size) {
        throw std::length_error("the test's path is too long");
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return true;
}

} // namespace NPlgHelper
