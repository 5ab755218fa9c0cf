// Where libmosquitto, and TLS with it, is loaded. The linker hands this program's own dlopen to the libraries; it calls
// the real one.
#include "tests/integration/AgentFixture.h"

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex loadsMutex;
std::vector<std::string> loads; // "file on thread"

void noteLoad(const char* file) {
    std::array<char, 16> thread{};
    pthread_getname_np(pthread_self(), thread.data(), thread.size());
    const std::lock_guard lock(loadsMutex);
    loads.push_back(std::string(file != nullptr ? file : "") + " on " + thread.data());
}

std::vector<std::string> loadsSoFar() {
    const std::lock_guard lock(loadsMutex);
    return loads;
}

} // namespace

extern "C" {
void* __real_dlopen(const char* file, int mode);  // NOLINT(bugprone-reserved-identifier): the linker's name
void* __wrap_dlopen(const char* file, int mode);  // NOLINT(bugprone-reserved-identifier): the linker's name
void* __wrap_dlopen(const char* file, int mode) { // NOLINT(bugprone-reserved-identifier): the linker's name
    noteLoad(file);
    return __real_dlopen(file, mode);
}
}

namespace {

using namespace testing_support;

/// A reload may run in the handler of a signal, where nothing may be loaded.
TEST_F(AMachine, LoadsTheMqttLibraryOnTheThreadOfItsConnectionAlone) {
    create();
    EXPECT_EQ(m_agent, nullptr) << "it is not enrolled";
    EXPECT_EQ(loadsSoFar(), std::vector<std::string>{});
    MqttBroker broker(root());
    enrol(broker.port());
    start();
    ASSERT_TRUE(isConnected());
    release();
    create();
    EXPECT_EQ(loadsSoFar(), std::vector<std::string>{"libmosquitto.so.1 on agent-network"});
}

} // namespace
