// What sentrelctl doctor finds of hvbd's log store, and of what sentreld leaves behind: the event socket, the PID file,
// and whose these are. And what it finds when it tries them out.
//
// All processes are real. What must stay so: a second daemon is one that the test starts beside the first, and each
// test that makes a client hold the event socket lets it go before the daemon is asked to end, which waits for it.
#include "base/UniqueFd.h"
#include "tests/integration/DoctorFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/UnixSocket.h"

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

// What the processes leave behind.

TEST_F(ARunningInstallation, FailsWithALogStoreThatOthersCanRead) {
    const std::string path = std::string(kHubVar) + "/hvblog.db";
    setMode(path, 0644);
    expectFailed("log-store", "other users may use " + path + ", which holds what people browsed: it has mode 0644",
                 "chmod o= " + path + "*");
}

TEST_F(AnInstallation, SaysThatThereIsNoLogStoreYet) {
    expectUnseen("log-store", std::string("there is no ") + kHubVar + "/hvblog.db yet; hvbd makes it");
}

TEST_F(ARunningInstallation, FailsWithoutTheLogStore) {
    fs::remove(at(std::string(kHubVar) + "/hvblog.db"));
    expectFailed("log-store", std::string("there is no ") + kHubVar + "/hvblog.db, although hvbd runs",
                 "Let hvbd's user write into its directory, and restart hvbd");
}

/// A log store that hvbd has made, and hvbd again on what a test made of it.
class ALogStore : public AnInstallation {
protected:
    ALogStore() {
        m_machine.startHub();
        m_machine.hub().terminate();
    }

    void startHubOnIt() {
        m_hub.emplace(programUnderTest("HVBD_ROOTED"),
                      ChildOptions{.arguments = {},
                                   .environment = {"SENTREL_INSTALL_ROOT=" + m_machine.root().path().string()},
                                   .outputFile = "",
                                   .uid = {},
                                   .gid = {}});
        awaitUntil("hvbd to be on the bus", [&] { return finding("hvbd").result == "ok"; });
    }

    std::string m_path = std::string(kHubVar) + "/hvblog.db";
    std::string m_startAnew = "Stop hvbd, move the file and what begins with its name away, and start hvbd, which "
                              "makes a new one; the daemon "
                              "keeps new reports until then";

private:
    std::optional<ChildProcess> m_hub;
};

TEST_F(ALogStore, FailsWhenItIsDamaged) {
    write(m_path, std::string(fs::file_size(at(m_path)), '\xa5'));
    setMode(m_path, 0640);
    const std::string what = m_path + " is damaged: reports cannot be stored or shown";
    expectFailed("log-content", what, m_startAnew, "log-store-damaged");
    startHubOnIt();
    expectFailed("log-content", what, m_startAnew, "log-store-damaged");
    EXPECT_NE(ctl(m_machine.root(), {"log"}).code, 0);
}

TEST_F(ALogStore, FailsWhenOneOfItsPagesIsDamaged) {
    constexpr std::size_t page = 4096;
    std::string content = readFile(at(m_path));
    ASSERT_GT(content.size(), 2 * page);
    write(m_path, content.replace(page, page, std::string(page, '\xa5')));
    setMode(m_path, 0640);
    EXPECT_EQ(finding("log-content").id, "log-store-damaged");
}

TEST_F(ALogStore, FailsWhenItIsAnotherPrograms) {
    fs::remove(at(m_path));
    ChildProcess program("sqlite3", {.arguments = {at(m_path), "create table notes(line text)"},
                                     .environment = {},
                                     .outputFile = "",
                                     .uid = {},
                                     .gid = {}});
    ASSERT_EQ(program.waitUntil(patience()), 0);
    setMode(m_path, 0640);
    EXPECT_EQ(finding("log-content").result, "ok") << "whose it is, hvbd alone knows";
    startHubOnIt();
    const Finding found = finding("log-content");
    EXPECT_EQ(found.id, "log-store-unusable");
    EXPECT_TRUE(found.what.starts_with("hvbd cannot use its store: ")) << found.what;
}

TEST_F(ARunningInstallation, HidesWhatIsInTheLogStoreFromAnotherUser) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    expectUnseen("log-content", std::string("only root and hvbd's user see what is in ") + kHubVar + "/hvblog.db",
                 kNobody);
}

TEST_F(ARunningInstallation, FailsWithAnEventSocketThatOthersCannotUse) {
    const std::string path = std::string(kShared) + "/STIPC";
    setMode(path, 0700);
    expectFailed("event-socket", "browsers of other users cannot report to " + path + ": it has mode 0700",
                 "chmod 0777 " + path + ", or restart sentreld");
}

TEST_F(ARunningInstallation, FailsAfterACrash) {
    const pid_t pid = m_machine.daemon().pid();
    m_machine.kill9Daemon();
    expectFailed("event-socket", std::string("nobody listens at ") + kShared + "/STIPC: Connection refused",
                 "Start sentreld");
    expectFailed("pid-file",
                 std::string(kVar) + "/.STPid names the process " + std::to_string(pid) +
                     ", which has ended without a clean stop",
                 "Start sentreld");
}

TEST_F(AnInstallation, FailsWithAFileInTheEventSocketsPlace) {
    write(std::string(kShared) + "/STIPC", "");
    expectFailed("event-socket", std::string(kShared) + "/STIPC is no socket",
                 "Find out who put it there, remove it, and start sentreld");
}

TEST_F(AnInstallation, FailsWithAPidFileOfSomethingElse) {
    const std::string path = std::string(kVar) + "/.STPid";
    write(path, "none");
    expectFailed("pid-file", path + " holds no process id", "Start sentreld", "pid-file-garbled");
    write(path, std::to_string(::getpid()));
    const Finding other = finding("pid-file");
    EXPECT_EQ(other.result, "failed");
    EXPECT_TRUE(other.what.ends_with(" and not sentreld")) << other.what;
}

/// A daemon that runs, and what it leaves.
class ADaemonsLeavings : public ARunningInstallation {
protected:
    std::string whileItRuns() {
        return ", while sentreld runs as the process " + std::to_string(m_machine.daemon().pid());
    }

    /// A second sentreld beside the first, once it has the PID file.
    ChildProcess second() {
        ChildProcess process(programUnderTest("SENTRELD_ROOTED"),
                             {.arguments = {},
                              .environment = {"SENTREL_INSTALL_ROOT=" + m_machine.root().path().string()},
                              .outputFile = "",
                              .uid = {},
                              .gid = {}});
        const std::string pid = std::to_string(process.pid());
        awaitUntil("the second PID", [&] { return readFile(at(m_pidFile)) == pid; });
        return process;
    }

    /// Whether PID file, event socket and the hub's name are this process's.
    bool hasAll(const ChildProcess& daemon) {
        return finding("one-daemon")
            .what.starts_with("the PID file, the event socket, the hub's name Module7 are those of the process " +
                              std::to_string(daemon.pid()));
    }

    std::string m_pidFile = std::string(kVar) + "/.STPid";
    std::string m_restart = "Restart sentreld, which writes the file; until then do not start another";
};

TEST_F(ADaemonsLeavings, AreWarnedOfWhenThePidFileIsGone) {
    fs::remove(at(std::string(kVar) + "/.STPid"));
    expectWarning("pid-file",
                  std::string("there is no ") + kVar + "/.STPid" + whileItRuns() +
                      ": another sentreld that has ended took it away",
                  m_restart);
}

TEST_F(ADaemonsLeavings, AreRestartedWhenThePidFileIsStale) {
    ChildProcess ended("true", {});
    ASSERT_EQ(ended.waitUntil(patience()), 0);
    write(m_pidFile, std::to_string(ended.pid()));
    expectFailed("pid-file",
                 m_pidFile + " names the process " + std::to_string(ended.pid()) +
                     ", which has ended without a clean stop" + whileItRuns(),
                 m_restart, "pid-file-stale");
    EXPECT_EQ(finding("one-daemon").result, "ok") << "what has ended is nobody's";
}

TEST_F(ADaemonsLeavings, AreWarnedOfWhenTheOlderOfTwoDaemonsTookThePidFileAlong) {
    ChildProcess newer = second();
    awaitUntil("the newer to listen", [&] {
        return finding("pid-file").what == "sentreld is the process " + std::to_string(newer.pid()) &&
               finding("event-socket").result == "ok";
    });
    m_machine.stopDaemon();
    ASSERT_FALSE(fs::exists(at(m_pidFile)));
    EXPECT_EQ(finding("pid-file"),
              (Finding{"warning",
                       "there is no " + m_pidFile + ", while sentreld runs as the process " +
                           std::to_string(newer.pid()) + ": another sentreld that has ended took it away",
                       m_restart, "pid-file-gone"}));
}

TEST_F(ADaemonsLeavings, FailWhenTheyBelongToDifferentProcesses) {
    const std::string first = std::to_string(m_machine.daemon().pid());
    ChildProcess other = second();
    awaitUntil("the second to have all", [&] { return hasAll(other); });
    write(m_pidFile, first);
    const Finding found = finding("one-daemon");
    EXPECT_EQ(found.id, "two-daemons");
    EXPECT_TRUE(found.what.starts_with("the PID file is that of sentreld-rooted (" + first +
                                       "), the event socket is that of sentreld-rooted (" +
                                       std::to_string(other.pid()) + "), the hub's name Module7 is that of "))
        << found.what;
    EXPECT_EQ(found.advice,
              "A sentreld that has just been started takes all of these: look again. Otherwise end all of "
              "these that are sentreld, and start it once");
}

TEST_F(ADaemonsLeavings, AreWarnedOfWhileAnOlderDaemonRunsOnWithoutThem) {
    const std::string older = std::to_string(m_machine.daemon().pid());
    EXPECT_EQ(finding("one-daemon").result, "ok");
    ChildProcess newer = second();
    awaitUntil("the second to have all", [&] { return hasAll(newer); });
    EXPECT_EQ(
        finding("one-daemon"),
        (Finding{"warning",
                 "the PID file, the event socket, the hub's name Module7 are those of the process " +
                     std::to_string(newer.pid()) + "; an older sentreld runs on without them as the process " + older,
                 "End the older one, then restart sentreld: the PID file goes with the older one", "older-daemon"}));
    m_machine.stopDaemon();
    EXPECT_EQ(finding("one-daemon").result, "ok");
}

TEST_F(ADaemonsLeavings, FailWhenSomethingElseListensAtTheEventSocket) {
    const std::string path = at(std::string(kShared) + "/STIPC");
    fs::remove(path);
    const Sentrel::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(bindSocket(listener.get(), path));
    ASSERT_EQ(::listen(listener.get(), 5), 0);
    const Finding found = finding("one-daemon");
    EXPECT_EQ(found.id, "two-daemons");
    EXPECT_NE(found.what.find("(" + std::to_string(::getpid()) + ")"), std::string::npos) << found.what;
}

TEST_F(ADaemonsLeavings, FailWhenAClientHoldsTheEventSocket) {
    EXPECT_EQ(finding("event-socket").result, "ok");
    EventClient holder(m_machine.eventSocket());
    const Finding found = finding("event-socket");
    EXPECT_EQ(found.id, "event-socket-held");
    EXPECT_EQ(found.what, std::string("sentreld has not read from ") + kShared +
                              "/STIPC for 1 s: held by the process " + "integration-sen (" +
                              std::to_string(::getpid()) + ")");
    EXPECT_EQ(found.advice, "It serves one client at a time, for as long as that one stays: end that process, or "
                            "restart sentreld");
    holder.close();
    EXPECT_TRUE(eventually([&] { return finding("event-socket").result == "ok"; }));
}

TEST_F(ADaemonsLeavings, FailWhenTheDaemonTakesNobodyAtTheEventSocket) {
    m_machine.daemon().hold();
    const Finding found = finding("event-socket");
    m_machine.daemon().kill(SIGCONT);
    EXPECT_EQ(found.id, "event-socket-held");
    EXPECT_TRUE(found.what.ends_with("no client holds it, so it may hang, or have much to do")) << found.what;
}

// What is tried out.

TEST_F(ARunningInstallation, IsNotTriedOutUnlessAsked) {
    const std::uint64_t before = m_machine.stored().size();
    EXPECT_EQ(finding("probe-event").result, "") << "the check is not among those that were made";
    EXPECT_EQ(m_machine.stored().size(), before);
}

TEST_F(ARunningInstallation, CarriesAMarkedRecordFromTheSocketIntoTheStore) {
    const Finding found = finding("probe-event", {}, {"--probe"});
    EXPECT_EQ(found.result, "ok");
    constexpr std::string_view head = "the record ";
    ASSERT_TRUE(found.what.starts_with("the record http://doctor-probe.invalid/")) << found.what;
    ASSERT_TRUE(found.what.ends_with(" went through the event socket into the log")) << found.what;
    const std::string mark = found.what.substr(head.size(), found.what.find(' ', head.size()) - head.size());
    const std::vector<Machine::Stored> stored = m_machine.stored();
    ASSERT_EQ(stored.size(), 1U);
    const std::wstring wide(mark.begin(), mark.end());
    EXPECT_NE((stored.front().text + stored.front().detail).find(wide), std::wstring::npos);
}

TEST_F(ARunningInstallation, FailsItsProbeWhenTheStoreTakesNothing) {
    m_machine.hub().hold();
    const Finding held = finding("probe-event", {}, {"--probe"});
    m_machine.hub().kill(SIGCONT);
    EXPECT_EQ(held.result, "unseen") << "the log cannot be read: " << held.what;
    ChildProcess program("sqlite3", {.arguments = {at(std::string(kHubVar) + "/hvblog.db"),
                                                   "create trigger t before insert on log begin select raise(abort, "
                                                   "'no'); end"},
                                     .environment = {},
                                     .outputFile = "",
                                     .uid = {},
                                     .gid = {}});
    ASSERT_EQ(program.waitUntil(patience()), 0);
    const Finding found = finding("probe-event", {}, {"--probe"});
    EXPECT_EQ(found.id, "probe-event");
    EXPECT_TRUE(found.what.starts_with("sentreld took the record http://doctor-probe.invalid/")) << found.what;
}

TEST_F(ARunningInstallation, FailsItsProbeWhenNobodyListens) {
    m_machine.stopDaemon();
    EXPECT_TRUE(finding("probe-event", {}, {"--probe"}).what.starts_with("a record cannot be given to sentreld: "));
}

TEST_F(AnInstallation, TakesTheWriteLockAndGivesItBack) {
    EXPECT_EQ(
        finding("probe-lock", {}, {"--probe"}),
        (Finding{"ok", std::string("root took the write lock of ") + kShared + "/product.db and gave it back", ""}));
    EXPECT_EQ(m_machine.trySql("begin immediate").status, 0);
}

TEST_F(AnInstallation, TakesTheWriteLockAsTheDaemonsUser) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    for (const char* path : {kShared, kVar}) {
        giveToNobody(path);
    }
    giveToNobody(std::string(kShared) + "/product.db");
    EXPECT_EQ(finding("probe-lock", {}, {"--probe"}).what,
              std::string("nobody took the write lock of ") + kShared + "/product.db and gave it back");
    setMode(std::string(kShared) + "/product.db", 0440);
    const Finding refused = finding("probe-lock", {}, {"--probe"});
    EXPECT_EQ(refused.id, "probe-lock");
    EXPECT_TRUE(refused.what.starts_with("nobody cannot take the write lock of ")) << refused.what;
}

TEST_F(AnInstallation, FailsItsProbeWhenAnotherProcessKeepsTheWriteLock) {
    ChildProcess holder("sqlite3",
                        {.arguments = {m_machine.settingsFile(), "begin immediate", ".shell echo held; sleep 60"},
                         .environment = {},
                         .outputFile = at(std::string(kVar) + "/holder.out"),
                         .uid = {},
                         .gid = {}});
    awaitUntil("the lock", [&] { return holder.output() == "held\n"; });
    const Finding found = finding("probe-lock", {}, {"--probe"});
    EXPECT_EQ(found.id, "probe-lock");
    EXPECT_EQ(found.what, std::string("another process holds the write lock of ") + kShared +
                              "/product.db: no change can be stored");
}

TEST_F(ARunningInstallation, LeavesProbingToRootAndTheServicesUsers) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can act as others";
    }
    setMode(std::string(kShared) + "/product.db", 0644);
    EXPECT_EQ(finding("probe-lock", kNobody, {"--probe"}),
              (Finding{"unseen", "only root and the daemon's user may take the settings file's write lock", ""}));
    EXPECT_EQ(finding("probe-event", kNobody, {"--probe"}),
              (Finding{"unseen", "only root and the administrators may read the log", ""}));
}

} // namespace
} // namespace testing_support
