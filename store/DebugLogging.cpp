// The debug logging switch. The hub's configuration file of the module holds the truth: a worker thread rewrites it and
// has the hub read it again, one change at a time, while the caller notes the change in the settings file.
//
// A change that meets another one under way is dropped, not queued. The lock is taken by who asks and released by the
// worker, so it has to be a mutex that knows no owner. The worker goes: file, switch in memory, event, reload command.
// When one of these fails, those behind it are left out and nothing is rolled back; the trace log says which it was.
//
// Nobody joins a worker, so it detaches itself with its first step: workers that did not kept their stacks, until no
// further thread could be made. The end of the process asks isChangingDebugLogging. A count alone misses a worker that
// has been started and has not begun, and so a worker also bears a name from its birth on.
#include "base/Paths.h"
#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbutils/LibXmlWrapper.h"
#include "store/PreferenceFile.h"
#include "store/STPreferenceController.h"

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

namespace Sentrel {

// Held for the length of one change: taken by the thread that asks for it, released by the worker. That is why its type
// must stay the default one, which knows no owner.
static pthread_mutex_t configFile_Mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

std::atomic<int> workers{0}; // each counts itself in with its first step and out with its last

constexpr const char* kWorkerName = "debug-logging"; // at most 15 characters

/// Gives the calling thread the name of a worker while it lives. A new thread inherits the name of the thread that
/// starts it, so a worker can be recognised before its first step.
/// Threads: the one that makes it. Owner: a local.
class NameForWorkers {
public:
    NameForWorkers() {
        pthread_getname_np(pthread_self(), m_before.data(), m_before.size());
        pthread_setname_np(pthread_self(), kWorkerName);
    }
    ~NameForWorkers() { pthread_setname_np(pthread_self(), m_before.data()); }
    NameForWorkers(const NameForWorkers&) = delete;
    NameForWorkers& operator=(const NameForWorkers&) = delete;

private:
    std::array<char, 16> m_before{};
};

/// Whether this process has a thread with the name of a worker. True also when that cannot be found out.
bool hasThreadOfWorker() {
    try {
        for (const auto& thread : boost::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream((thread.path() / "comm").string()), name);
            if (name == kWorkerName) {
                return true;
            }
        }
        return false;
    } catch (...) {
        return true;
    }
}

/// Releases, on the worker, the lock that another thread took. It is a function of its own because
/// tests/tsan-suppressions.txt names it.
[[gnu::noinline]] void releaseForWhoAsked(pthread_mutex_t& mutex) {
    pthread_mutex_unlock(&mutex);
}

void reportNoPathOfSwitch() {
    ST_TRACE(configFlow, 1, L"Error while getting DB Path\n");
    detail::printLine("Error while getting DB Path");
}

void reportNoHandleOfSwitch() {
    ST_TRACE(configFlow, 1, L"STPreferenceController::setEnableDebugLogging - Error while getting DB handle\n");
    detail::printLine("Preference error while getting DB handle");
}

/// Notes the switch in the settings file, where nothing reads it.
bool noteInSettings(bool status) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::setDebugLoggingStatus - entered with value %s\n",
             status ? "true" : "false");
    const auto settings = detail::openSettings(reportNoPathOfSwitch, reportNoHandleOfSwitch);
    if (settings == nullptr) {
        return false;
    }
    if (!detail::storeNumber(*settings, "Enabled_Debug_Log", status ? 1 : 0)) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::setEnableDebugLogging - Error while updating value in DB\n");
        return false;
    }
    ST_TRACE(configFlow, 3, L"STPreferenceController::setEnableDebugLogging - Successfully updated value in DB\n");
    return true;
}

/// Puts the switch into the configuration file. System logging stays enabled also when it goes off.
bool rewriteConfiguration(LibXmlWrapper& configuration, const std::string& path, bool status) {
    configuration.setXPathElement("/HVConfiguration/SyslogEnable", "true");
    configuration.setXPathElement("/HVConfiguration/LogLevel", status ? "debug" : "information");
    const boost::filesystem::path file = boost::filesystem::system_complete(path);
    const boost::filesystem::file_status found = boost::filesystem::status(file);
    if (!boost::filesystem::exists(found) || boost::filesystem::is_directory(found)) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB unable to open HVConfig.xml\n");
        return false;
    }
    std::string target = file.string(); // the operation asks for a text that it might write to
    if (!configuration.SaveToFile(target.data())) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB unable to save HVConfig.xml\n");
        return false;
    }
    ST_TRACE(configFlow, 5, L"STPreferenceController::updateHVConfigAndReloadHVB HVConfig.xml updated successully.\n");
    return true;
}

void reloadHub() {
    HVB::HVBCommBroker* broker = HVB::HVBCommBroker::getInstance(paths::hubSocket());
    HVB::CommandData data(CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
    data.writePayload(static_cast<int>(HVB::MODULE_SENTREL));
    HVB::CommandResult result;
    ST_TRACE(configFlow, 3, L"STPreferenceController::updateHVConfigAndReloadHVB Sending reload command to HVB\n");
    constexpr int timeoutSeconds = 45;
    broker->sendCommand(data, &result, true, timeoutSeconds);
    if (result.m_bSucceeded && result.m_bValid) {
        ST_TRACE(configFlow, 3, L"STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB Successful\n");
    } else {
        ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB failed\n");
    }
}

} // namespace

bool STPreferenceController::setDebugLoggingStatus(bool status) {
    bool isOurs = false;
    try {
        ST_TRACE(configFlow, 2, L"STPreferenceController::setDebugLoggingStatus entered with status %s\n",
                 status ? "ON" : "OFF");
        isOurs = pthread_mutex_trylock(&configFile_Mutex) == 0;
        if (!isOurs) {
            ST_TRACE(configFlow, 2,
                     L"STPreferenceController::setDebugLoggingStatus unable to acquire the lock for update "
                     L"operation\n");
            return false;
        }
        pthread_t worker{};
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the argument is the number itself
        auto* argument = reinterpret_cast<void*>(static_cast<std::intptr_t>(status));
        const NameForWorkers name;
        static_cast<void>(pthread_create(&worker, nullptr, updateHVConfigAndReloadHVB, argument));
    } catch (...) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::setDebugLoggingStatus - Caught unknown exception\n");
        if (isOurs) {
            pthread_mutex_unlock(&configFile_Mutex);
        }
        return false;
    }
    bool isNoted = false;
    detail::guarded("setEnableDebugLogging", [&]() -> int {
        isNoted = noteInSettings(status);
        return ST_ERROR_NONE;
    });
    return isNoted;
}

bool STPreferenceController::isChangingDebugLogging() {
    // In this order: a worker has its name for longer than it is counted.
    return workers != 0 || hasThreadOfWorker();
}

void STPreferenceController::changeDebugLogging(bool status) {
    const std::string path = paths::moduleConfiguration();
    LibXmlWrapper configuration(path);
    ST_TRACE(configFlow, 4, L"STPreferenceController::updateHVConfigAndReloadHVB Going to update HVConfig.xml\n");
    if (!rewriteConfiguration(configuration, path, status)) {
        return;
    }
    getInstance()->m_bDebugLogging = status;
    getInstance()->signalPrefChange(ST_DEBUG_LOGGING);
    reloadHub();
}

void* STPreferenceController::updateHVConfigAndReloadHVB(void* status) {
    ++workers;
    // Nobody joins a worker. One that does not detach itself leaves its stack behind for good.
    const pthread_t self = pthread_self();
    pthread_detach(self);
    const bool isOn = status != nullptr;
    ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB entered with thread id %u\n",
             static_cast<unsigned>(self));
    ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB Logging NewStatus - %s\n",
             isOn ? "ON" : "OFF");
    try {
        try {
            changeDebugLogging(isOn);
        } catch (const VXException& exception) {
            ST_TRACE(configFlow, 1, L" STPreferenceController::updateHVConfigAndReloadHVB - Got exception %s.\n",
                     trace::printable(exception.message()).c_str());
        }
    } catch (...) { // also of the line above, when there is no memory for it
        ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB - Caught unknown exception\n");
    }
    releaseForWhoAsked(configFile_Mutex);
    ST_TRACE(configFlow, 1, L"STPreferenceController::updateHVConfigAndReloadHVB exiting with thread id %u\n",
             static_cast<unsigned>(self));
    --workers;
    pthread_exit(nullptr); // outside of any handler: it unwinds
}

} // namespace Sentrel
