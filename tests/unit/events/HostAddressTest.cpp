// This machine's name and address. Real: names that the resolver answers or refuses without a network. Led through the
// system's double: failures, and answers that this machine does not give.
#include "events/HostAddress.h"

#include "daemon/Trace.h"
#include "tests/support/FlowLines.h"
#include "tests/unit/events/SystemDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::expectLineAt;
using testing_support::kAllLevels;
using testing_support::linesOf;
using testing_support::machineNamed;
using testing_support::resolverWith;
using testing_support::SystemDouble;

class TheHostName : public testing::Test {
protected:
    TheHostName() { SystemDouble::instance() = {}; }
    ~TheHostName() override { SystemDouble::instance() = {}; }

    SystemDouble& system = SystemDouble::instance();
};

class TheHostAddress : public TheHostName {};

TEST_F(TheHostName, IsTheSystems) {
    utsname machine{};
    ASSERT_EQ(uname(&machine), 0);
    EXPECT_EQ(getSystemHostName(), machine.nodename);
}

TEST_F(TheHostName, IsWholeAtTheGreatestLengthThatTheSystemAllows) {
    const std::string longest(64, 'h');
    system.hostNameLimit = 64;
    system.hostName = machineNamed(longest);
    EXPECT_EQ(getSystemHostName(), longest);
}

TEST_F(TheHostName, EndsWithTheBufferWhenItHasNoTerminator) {
    system.hostNameLimit = 8;
    system.hostName = [](char* buffer, std::size_t size) {
        std::memset(buffer, 'h', size);
        return 0;
    };
    EXPECT_EQ(getSystemHostName(), std::string(9, 'h'));
}

TEST_F(TheHostName, IsEmptyAndTracedWhenTheSystemTellsNoLimit) {
    system.hostNameLimit = -1;
    EXPECT_EQ(getSystemHostName(), "");
    expectLineAt(ipcFlowvalue, 1, "getSystemHostName : sysconf returnig -1 value", [] { getSystemHostName(); });
}

TEST_F(TheHostName, IsEmptyWithoutALineWhenTheSystemDoesNotTellIt) {
    system.hostName = [](char* buffer, std::size_t) {
        *buffer = 'x';
        return -1;
    };
    EXPECT_THAT(linesOf(ipcFlowvalue, kAllLevels, [] { EXPECT_EQ(getSystemHostName(), ""); }), IsEmpty());
}

TEST_F(TheHostAddress, TracesItsEntryAtLevelOne) {
    expectLineAt(ipcFlowvalue, 1, "getHostIp  - Invoked ", [] { getHostIp("localhost"); });
}

TEST_F(TheHostAddress, OfAnEmptyNameIsEmptyAndNobodyIsAsked) {
    system.lookUp = [](const char*) -> hostent* { throw std::logic_error("asked"); };
    EXPECT_THAT(linesOf(ipcFlowvalue, kAllLevels, [] { EXPECT_EQ(getHostIp(""), ""); }),
                ElementsAre("getHostIp  - Invoked "));
}

TEST_F(TheHostAddress, IsTheResolvers) {
    const auto lines = linesOf(ipcFlowvalue, kAllLevels, [] {
        EXPECT_EQ(getHostIp("localhost"), "127.0.0.1");
        EXPECT_EQ(getHostIp("192.0.2.7"), "192.0.2.7");
    });
    EXPECT_THAT(lines, ElementsAre("getHostIp  - Invoked ", "getHostIp  - Invoked "));
}

TEST_F(TheHostAddress, IsTheFirstOfSeveral) {
    system.lookUp = resolverWith({"192.0.2.17", "192.0.2.18"});
    EXPECT_EQ(getHostIp("unit.example"), "192.0.2.17");
}

TEST_F(TheHostAddress, IsEmptyWhenTheResolverGivesNoIPv4Address) {
    static char* none[] = {nullptr};
    static hostent answer{};
    answer.h_addr_list = none;
    answer.h_addrtype = AF_INET;
    system.lookUp = [](const char*) { return &answer; };
    EXPECT_EQ(getHostIp("unit.example"), "");
    answer.h_addrtype = AF_INET6;
    EXPECT_EQ(getHostIp("unit.example"), "");
}

TEST_F(TheHostAddress, IsTheQuadInANameThatDoesNotResolve) {
    const auto lines =
        linesOf(ipcFlowvalue, 1, [] { EXPECT_EQ(getHostIp("host..192.0.2.33-x,192.0.2.34"), "192.0.2.33"); });
    EXPECT_THAT(lines, ElementsAre("getHostIp  - Invoked ",
                                   "getHostIp : gethostbyname for host..192.0.2.33-x,192.0.2.34 retured NULL ",
                                   "getHostIp : extracting ip adress 192.0.2.33", ""));
}

TEST_F(TheHostAddress, IsTheQuadWhateverTheSizeOfItsNumbers) {
    EXPECT_EQ(getHostIp("host..999.0.2.3334"), "999.0.2.333");
}

TEST_F(TheHostAddress, IsEmptyWithoutALineWhenTheNameNeitherResolvesNorHoldsAQuad) {
    const auto lines = linesOf(ipcFlowvalue, kAllLevels, [] {
        EXPECT_EQ(getHostIp("host..example"), "");
        EXPECT_EQ(getHostIp("host..192.0.2"), "");
    });
    EXPECT_THAT(lines, ElementsAre("getHostIp  - Invoked ", "getHostIp  - Invoked "));
}

TEST_F(TheHostAddress, IsEmptyAndTracedWhenItHasNoText) {
    system.addressHasNoText = true;
    EXPECT_EQ(getHostIp("localhost"), "");
    expectLineAt(ipcFlowvalue, 1, "getHostIp : inet_ntoa for localhost retured NULL", [] { getHostIp("localhost"); });
}

TEST_F(TheHostAddress, IsEmptyAndTracedWhenTheLookUpThrows) {
    system.lookUp = [](const char*) -> hostent* { throw std::runtime_error("resolver"); };
    EXPECT_EQ(getHostIp("unit.example"), "");
    expectLineAt(ipcFlowvalue, 1, "getHostIp - Exception ", [] { getHostIp("unit.example"); });
}

TEST_F(TheHostAddress, KeepsATraceLineOneLineWhenTheNameIsNoText) {
    const auto lines = linesOf(ipcFlowvalue, 1, [] { getHostIp("h\xFF\n..192.0.2.33"); });
    EXPECT_THAT(lines, testing::Contains("getHostIp : gethostbyname for h\\xff\\x0a..192.0.2.33 retured NULL "));
}

} // namespace
