#include "tests/support/ProcessState.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <ctime>

namespace testing_support {
namespace {

std::map<std::string, std::string> environmentNow() {
    std::map<std::string, std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::size_t equals = text.find('=');
        if (equals != std::string::npos) {
            result.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
    }
    return result;
}

mode_t umaskNow() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

} // namespace

ProcessState::ProcessState()
    : m_umask(umaskNow()), m_directory(std::filesystem::current_path()), m_environment(environmentNow()),
      m_locale(std::setlocale(LC_ALL, nullptr)) {
    for (std::size_t signal = 1; signal < kSignals; ++signal) {
        sigaction(static_cast<int>(signal), nullptr, &m_handlers[signal]);
    }
    pthread_sigmask(SIG_BLOCK, nullptr, &m_mask);
    for (std::size_t limit = 0; limit < kLimits.size(); ++limit) {
        getrlimit(static_cast<__rlimit_resource_t>(kLimits[limit]), &m_limits[limit]);
    }
}

void ProcessState::restore() const {
    for (std::size_t limit = 0; limit < kLimits.size(); ++limit) {
        setrlimit(static_cast<__rlimit_resource_t>(kLimits[limit]), &m_limits[limit]);
    }
    restoreSignals();
    restoreEnvironment();
    umask(m_umask);
    std::filesystem::current_path(m_directory);
    std::setlocale(LC_ALL, m_locale.c_str());
}

void ProcessState::restoreSignals() const {
    sigset_t pending;
    sigpending(&pending);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    for (int signal = 1; signal < static_cast<int>(kSignals); ++signal) {
        if (sigismember(&pending, signal) == 1) {
            sigaction(signal, &ignore, nullptr); // which drops it
        }
    }
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    for (int signal = 1; signal < static_cast<int>(kSignals); ++signal) {
        sigaction(signal, &m_handlers[static_cast<std::size_t>(signal)], nullptr);
    }
}

void ProcessState::restoreEnvironment() const {
    for (const auto& [name, value] : environmentNow()) {
        if (m_environment.count(name) == 0) {
            unsetenv(name.c_str());
        }
    }
    for (const auto& [name, value] : m_environment) {
        const char* const now = std::getenv(name.c_str());
        if (now == nullptr || value != now) {
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    tzset();
}

} // namespace testing_support
