// A view of this machine whose sessions, logins and accounts are the test's: a private mount namespace with an empty
// /run, an account file of its own and a utmp file of its own. The rest of the machine sees nothing of it.
#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <string>

namespace testing_support {

/// Real: libsystemd's and the C library's reading of these files. Not real: who wrote them.
/// Requires root or the right to make user namespaces.
/// Threads: the test's, before any other is started. Owner: a test's fixture.
class PrivateMachine {
public:
    PrivateMachine();
    ~PrivateMachine();
    PrivateMachine(const PrivateMachine&) = delete;
    PrivateMachine& operator=(const PrivateMachine&) = delete;

    /// Adds an account. @param comment the field that a person's name stands in.
    void account(const std::string& name, unsigned uid, unsigned gid, const std::string& comment = "");

    /// Makes @p session, of @p uid and of a class such as "user" or "greeter", the active one of seat0.
    void activeSession(const std::string& session, unsigned uid, const std::string& kind);
    /// Makes @p session active at seat0 with nothing known about it.
    void activeSessionWithoutState(const std::string& session, unsigned uid);
    /// seat0 with nobody at it.
    void emptySeat();

    /// Adds a login to utmp. @param type a ut_type such as USER_PROCESS.
    void login(const std::string& name, const std::string& line, int seconds, short type);

private:
    const TemporaryDirectory m_directory; // goes with the machine, also when its making fails
};

} // namespace testing_support
