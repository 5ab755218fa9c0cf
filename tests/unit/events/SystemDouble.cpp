#include "tests/unit/events/SystemDouble.h"

#include "tests/support/FreshStart.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace testing_support {

SystemDouble& SystemDouble::instance() {
    return freshForEachTest<SystemDouble>();
}

std::function<int(char*, std::size_t)> machineNamed(std::string name) {
    return [name = std::move(name)](char* buffer, std::size_t size) {
        if (size <= name.size()) {
            errno = ENAMETOOLONG;
            return -1;
        }
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        return 0;
    };
}

std::function<hostent*(const char*)> resolverWith(const std::vector<std::string>& addresses) {
    struct Answer {
        std::vector<in_addr> numbers;
        std::vector<char*> list;
        hostent entry{};
    };
    auto answer = std::make_shared<Answer>();
    for (const std::string& address : addresses) {
        answer->numbers.push_back({inet_addr(address.c_str())});
    }
    for (in_addr& number : answer->numbers) {
        answer->list.push_back(reinterpret_cast<char*>(&number));
    }
    answer->list.push_back(nullptr);
    answer->entry.h_addrtype = AF_INET;
    answer->entry.h_length = sizeof(in_addr);
    answer->entry.h_addr_list = answer->list.data();
    return [answer](const char* /*name*/) { return answer->numbers.empty() ? nullptr : &answer->entry; };
}

} // namespace testing_support

using testing_support::SystemDouble;

extern "C" {

long __real_sysconf(int name);
int __real_gethostname(char* buffer, std::size_t size);
hostent* __real_gethostbyname(const char* name);
char* __real_inet_ntoa(in_addr address);
int __real_getpwuid_r(uid_t uid, passwd* entry, char* buffer, std::size_t size, passwd** found);

long __wrap_sysconf(int name);
int __wrap_gethostname(char* buffer, std::size_t size);
hostent* __wrap_gethostbyname(const char* name);
char* __wrap_inet_ntoa(in_addr address);
int __wrap_getpwuid_r(uid_t uid, passwd* entry, char* buffer, std::size_t size, passwd** found);

long __wrap_sysconf(int name) {
    if (name != _SC_HOST_NAME_MAX) {
        return __real_sysconf(name); // a sanitizer linked into the program asks before anything else is ready
    }
    const std::optional<long>& limit = SystemDouble::instance().hostNameLimit;
    return limit ? *limit : __real_sysconf(name);
}

int __wrap_gethostname(char* buffer, std::size_t size) {
    const auto& hostName = SystemDouble::instance().hostName;
    return hostName ? hostName(buffer, size) : __real_gethostname(buffer, size);
}

hostent* __wrap_gethostbyname(const char* name) {
    const auto& lookUp = SystemDouble::instance().lookUp;
    return lookUp ? lookUp(name) : __real_gethostbyname(name);
}

char* __wrap_inet_ntoa(in_addr address) {
    return SystemDouble::instance().addressHasNoText ? nullptr : __real_inet_ntoa(address);
}

int __wrap_getpwuid_r(uid_t uid, passwd* entry, char* buffer, std::size_t size, passwd** found) {
    const SystemDouble& system = SystemDouble::instance();
    if (system.noAccount) {
        *found = nullptr;
        return 0;
    }
    if (!system.homeDirectory) {
        return __real_getpwuid_r(uid, entry, buffer, size, found);
    }
    if (size <= system.homeDirectory->size()) {
        *found = nullptr;
        return ERANGE;
    }
    std::memcpy(buffer, system.homeDirectory->c_str(), system.homeDirectory->size() + 1);
    *entry = passwd{};
    entry->pw_uid = uid;
    entry->pw_dir = buffer;
    *found = entry;
    return 0;
}

} // extern "C"
