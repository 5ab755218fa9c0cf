#include "platform/hvbagent/Mosquitto.h"

#include "platform/hvbagent/MqttSession.h"

#include <dlfcn.h>

#include <string>

namespace HVBEnterprise::agent {
namespace {

constexpr const char* kFile = "libmosquitto.so.1"; // LIBMOSQUITTO_SOVERSION of the 2.0 series

[[noreturn]] void refuse(const char* why) {
    throw MqttFailure(std::string(kFile) + " cannot be used: " + (why != nullptr ? why : "unknown") +
                      ". Install the package libmosquitto1");
}

template <class Call>
void resolve(void* library, Call& call, const char* name) {
    call = reinterpret_cast<Call>(::dlsym(library, name)); // as dlsym(3) has it for functions
    if (call == nullptr) {
        refuse(::dlerror());
    }
}

Mosquitto load() {
    void* const library = ::dlopen(kFile, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        refuse(::dlerror());
    }
    Mosquitto calls{};
#define SENTREL_MOSQUITTO_RESOLVE(name) resolve(library, calls.name, #name);
    SENTREL_MOSQUITTO_CALLS(SENTREL_MOSQUITTO_RESOLVE)
#undef SENTREL_MOSQUITTO_RESOLVE
    if (calls.mosquitto_lib_init() != MOSQ_ERR_SUCCESS) {
        refuse("it cannot be set up");
    }
    return calls;
}

} // namespace

const Mosquitto& mosquittoLibrary() {
    static const Mosquitto calls = load(); // tried again by the next call when it throws
    return calls;
}

} // namespace HVBEnterprise::agent
