#include "tests/unit/events/ConsoleUserDouble.h"

#include "platform/consoleuser/ConsoleUser.h"
#include "tests/support/FreshStart.h"

#include <cstring>

struct ConsoleUserName {
    std::string name;
};

namespace testing_support {

ConsoleUserDouble& ConsoleUserDouble::instance() {
    return freshForEachTest<ConsoleUserDouble>();
}

} // namespace testing_support

using testing_support::ConsoleUserDouble;

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid) {
    ConsoleUserDouble& console = ConsoleUserDouble::instance();
    if (console.before) {
        console.before();
    }
    console.gaveStore = store != nullptr;
    console.gavePlacesForIds = uid != nullptr && gid != nullptr;
    if (!console.user) {
        return nullptr;
    }
    ++console.namesHeld;
    return new ConsoleUserName{*console.user};
}

bool CFStringGetCString(CFStringRef string, char* buffer, long bufferSize, unsigned encoding) {
    ConsoleUserDouble& console = ConsoleUserDouble::instance();
    console.bufferSize = bufferSize;
    console.encoding = encoding;
    if (console.beforeConverted) {
        console.beforeConverted();
    }
    if (string->name.size() >= static_cast<std::size_t>(bufferSize)) {
        return false;
    }
    std::memcpy(buffer, string->name.c_str(), string->name.size() + 1);
    return true;
}

void CFRelease(CFTypeRef object) {
    --ConsoleUserDouble::instance().namesHeld;
    delete static_cast<CFStringRef>(object);
}
