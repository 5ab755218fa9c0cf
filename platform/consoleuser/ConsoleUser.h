// Asks the system who sits at the console. Like the rest of the system's interface it is plain C.
#pragma once

#include <sys/types.h>

using CFTypeRef = const void*;
using CFStringRef = const struct ConsoleUserName*;
using SCDynamicStoreRef = const struct DynamicStore*;

/// UTF-8, the only encoding that names come in here.
inline constexpr unsigned kCFStringEncodingUTF8 = 0x08000100;

extern "C" {

/// The name of the user at the machine's own screen and keyboard: the active session of logind's seat0, else the
/// newest local login of utmp(5), else null. The caller ends a name with CFRelease. Any thread but not two at once,
/// as utmp has one cursor a process.
/// @param store not used.
/// @param uid, gid written when there is a user and they are not null.
CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid);

/// Copies a name with its terminator. @return false when it does not fit or another encoding than UTF-8 is asked for.
bool CFStringGetCString(CFStringRef string, char* buffer, long bufferSize, unsigned encoding);

/// Frees what SCDynamicStoreCopyConsoleUser gave.
void CFRelease(CFTypeRef object);

} // extern "C"
