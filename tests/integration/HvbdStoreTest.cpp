// hvbd's log store under kill -9, on a full disk and with every other trouble of its file, seen by the senders and
// from outside with the sqlite3 program. Bus, processes, files and locks are real.
#include "tests/integration/HvbdFixture.h"
#include "tests/support/Files.h"
#include "tests/support/OwnDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

using namespace testing_support;
namespace bus = HVB::bus;
namespace fs = std::filesystem;

namespace {

using AHubsStore = AHub;

Refusal troubleWith(const std::string& text) {
    return {bus::kErrorLogStore, text};
}

/// Senders that log without pause until their hub is gone, and what they were answered.
/// Threads: run by the test's thread. Owner: the test.
class Senders {
public:
    Senders(const std::string& socketPath, int round) {
        constexpr int count = 3;
        for (int i = 0; i < count; ++i) {
            const std::wstring prefix = L"r" + std::to_wstring(round) + L"s" + std::to_wstring(i) + L"n";
            m_threads.emplace_back([this, socketPath, prefix] { run(socketPath, prefix); });
        }
    }
    ~Senders() { join(); }
    Senders(const Senders&) = delete;
    Senders& operator=(const Senders&) = delete;

    std::size_t answered() {
        const std::lock_guard lock(m_mutex);
        return m_answered.size();
    }

    /// Waits for the senders' end. @return text by id.
    std::map<std::uint64_t, std::wstring> join() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
        return m_answered;
    }

private:
    void run(const std::string& socketPath, const std::wstring& prefix) {
        try {
            HubClient client(socketPath);
            for (int n = 0;; ++n) {
                const std::wstring text = prefix + std::to_wstring(n);
                const std::uint64_t id = client.log(text);
                const std::lock_guard lock(m_mutex);
                m_answered[id] = text;
            }
        } catch (const HVB::HVBException&) {
            return; // the hub is gone
        }
    }

    std::mutex m_mutex;
    std::map<std::uint64_t, std::wstring> m_answered; ///< guarded by m_mutex while the threads run
    std::vector<std::thread> m_threads;
};

/// The store's records as the sqlite3 program lists them.
std::map<std::uint64_t, std::wstring> parseListing(const std::string& listing) {
    std::map<std::uint64_t, std::wstring> records;
    std::istringstream lines(listing);
    std::uint64_t id = 0;
    char bar = 0;
    std::string hex;
    while (lines >> id >> bar >> hex) {
        std::wstring text;
        constexpr std::size_t digitsPerCharacter = 8;
        for (std::size_t at = 0; at + digitsPerCharacter <= hex.size(); at += digitsPerCharacter) {
            text.push_back(static_cast<wchar_t>(std::stoi(hex.substr(at, 2), nullptr, 16)));
        }
        records[id] = text;
    }
    return records;
}

TEST_F(AHubsStore, HoldsEveryAnsweredRecordAfterKill9) {
    std::map<std::uint64_t, std::wstring> answered;
    constexpr int rounds = 20;
    constexpr std::size_t answersBeforeTheKill = 25;
    for (int round = 0; round < rounds; ++round) {
        start();
        Senders senders(root.hubSocket(), round);
        ASSERT_TRUE(eventually([&] { return senders.answered() >= answersBeforeTheKill; }));
        kill9();
        for (auto& [id, text] : senders.join()) {
            EXPECT_TRUE(answered.emplace(id, text).second) << "id " << id << " was given twice";
        }
        const auto stored = parseListing(sqlite("SELECT id, hex(text) FROM log"));
        for (const auto& [id, text] : answered) {
            const auto found = stored.find(id);
            ASSERT_NE(found, stored.end()) << "record " << id << " was answered and is not in the store";
            EXPECT_EQ(found->second, text);
        }
        EXPECT_EQ(sqlite("PRAGMA integrity_check"), "ok\n");
    }
    EXPECT_GE(answered.size(), rounds * answersBeforeTheKill);
}

TEST_F(AHubsStore, AnswersARepeatedNumberWithSuccessAndStoresItOnceAlsoAfterKill9) {
    start();
    EXPECT_EQ(client().logNumbered(5, 1, L"one"), 1U);
    kill9();
    start();
    EXPECT_EQ(client().logNumbered(5, 1, L"one"), bus::kAlreadyStored);
    EXPECT_EQ(client().logNumbered(5, 2, L"two"), 2U);
    EXPECT_EQ(client().ids(), (std::vector<std::uint64_t>{1, 2}));
}

TEST_F(AHubsStore, RefusesANumberThatNoRecordHas) {
    start();
    HubClient sender = client();
    EXPECT_EQ(refusalOf([&] { sender.logNumbered(5, 0, L"none"); }),
              (Refusal{bus::kErrorBadMessage, "0 is no number of a record; 1 to 9223372036854775807 are"}));
    EXPECT_EQ(refusalOf([&] { sender.logNumbered(5, UINT64_MAX, L"none"); }).name, bus::kErrorBadMessage);
}

TEST_F(AHubsStore, StoresRecordsThatArriveTogetherInOneTransaction) {
    start();
    HubClient sender = client();
    constexpr int sent = 40; // the bus allows a client this many calls at once
    hvbd->hold();
    std::vector<std::uint64_t> cookies;
    for (int i = 0; i < sent; ++i) {
        std::uint64_t cookie = 0;
        bus::check(sd_bus_send(&sender.bus(), sender.newLog(std::to_wstring(i)).get(), &cookie), "send");
        cookies.push_back(cookie);
    }
    bus::check(sd_bus_flush(&sender.bus()), "flush");
    hvbd->kill(SIGCONT);
    std::map<std::uint64_t, std::uint64_t> idByCookie;
    while (idByCookie.size() < sent) {
        sd_bus_message* raw = nullptr;
        const int processed = sd_bus_process(&sender.bus(), &raw);
        bus::check(processed, "process");
        const bus::MessagePtr message(raw);
        std::uint64_t cookie = 0;
        std::uint64_t id = 0;
        if (raw != nullptr && sd_bus_message_get_reply_cookie(raw, &cookie) >= 0) {
            ASSERT_FALSE(sd_bus_message_is_method_error(raw, nullptr)) << sd_bus_message_get_error(raw)->message;
            ASSERT_GT(sd_bus_message_read(raw, "t", &id), 0);
            idByCookie[cookie] = id;
        } else if (processed == 0) {
            ASSERT_GT(sd_bus_wait(&sender.bus(), std::chrono::microseconds(kPatience).count()), 0);
        }
    }
    for (int i = 0; i < sent; ++i) {
        EXPECT_EQ(idByCookie.at(cookies.at(static_cast<std::size_t>(i))), static_cast<std::uint64_t>(i) + 1);
    }
    // Every record of a transaction has the same time. A slow machine may need a few of them.
    EXPECT_LT(std::stoi(sqlite("SELECT count(DISTINCT stored_at) FROM log")), sent / 4);
}

TEST_F(AHubsStore, IsReadableFromOutsideAndHasTheDocumentedLayout) {
    start();
    client().log(L"aé", L"b");
    EXPECT_EQ(sqlite("PRAGMA application_id; PRAGMA user_version; PRAGMA journal_mode"), "1213612620\n3\nwal\n");
    EXPECT_EQ(
        sqlite("SELECT id, source, type, hex(text), hex(detail), count, typeof(text), typeof(stored_at) FROM log"),
        "1|7|8|61000000E9000000|62000000|1|blob|integer\n");
    struct stat facts {};
    ASSERT_EQ(stat(store.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0640U);
}

TEST_F(AHubsStore, DropsTheOldestRecordsAtItsLimit) {
    start({"--log-limit-mib", "1"});
    HubClient sender = client();
    std::mt19937 random(7);
    std::wstring text(50'000, L'x'); // 200 kB that get no smaller: five of these fit
    std::generate(text.begin(), text.end(), [&] { return static_cast<wchar_t>(random()); });
    for (int i = 0; i < 12; ++i) {
        sender.log(text);
    }
    EXPECT_EQ(sqlite("SELECT min(id), max(id), count(*) FROM log"), "8|12|5\n");
    EXPECT_EQ(sender.ids(10), (std::vector<std::uint64_t>{11, 12}));
    EXPECT_EQ(sender.log(L"x"), 13U);
}

TEST_F(AHubsStore, SaysWhoHoldsItsLockAndStoresAgainAfterwards) {
    start();
    HubClient sender = client();
    sender.log(L"one");
    const std::string fifo = root.file("release");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // The sqlite3 program keeps its write transaction open until somebody opens the pipe for writing and closes it.
    ChildProcess holder("sqlite3", {.arguments = {store, "BEGIN IMMEDIATE", ".shell echo locked; cat " + fifo},
                                    .environment = {},
                                    .outputFile = root.file("holder.out"),
                                    .uid = {},
                                    .gid = {}});
    ASSERT_TRUE(eventually([&] { return holder.output() == "locked\n"; }));
    const std::string why = "cannot store the record: " + store +
                            " is locked by another program. End that program (fuser " + store + " names it).";
    EXPECT_EQ(refusalOf([&] { sender.log(L"two"); }), troubleWith(why));
    EXPECT_EQ(refusalOf([&] { sender.log(L"two"); }), troubleWith(why));
    EXPECT_EQ(sender.ids(), std::vector<std::uint64_t>{1}) << "reading needs no lock";
    ASSERT_GE(close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC)), 0);
    ASSERT_EQ(holder.waitUntil(patience()), 0);
    EXPECT_EQ(sender.log(L"three"), 2U);
    EXPECT_EQ(lines(why), 1U) << "one line when the trouble starts";
    EXPECT_EQ(lines("log records are stored again"), 1U) << "and one when it ends";
}

/// A trouble that a file of this kind makes, whatever state it was found in.
class AHubWithAFileThatIsNoStore : public AHub {
protected:
    std::string moveAway() const {
        return "Move it away together with " + store + "-wal and " + store +
               "-shm; the next record then makes a new one.";
    }

    void expectTroubleThenRecovery(const std::string& text) {
        start();
        HubClient sender = client();
        EXPECT_EQ(refusalOf([&] { sender.log(L"one"); }), troubleWith(text));
        EXPECT_EQ(refusalOf([&] { sender.log(L"one"); }).name, bus::kErrorLogStore);
        EXPECT_EQ(refusalOf([&] { sender.ids(); }).name, bus::kErrorLogStore);
        expectAlive();
        fs::rename(store, store + ".aside");
        EXPECT_EQ(sender.log(L"two"), 1U);
        EXPECT_EQ(lines("log records are stored again"), 1U);
    }
};

TEST_F(AHubWithAFileThatIsNoStore, LeavesADamagedOneAsItIsAndRecovers) {
    const std::string damaged(10'000, 'x');
    std::ofstream(store) << damaged;
    expectTroubleThenRecovery("cannot store the record: " + store + " is damaged (file is not a database). " +
                              moveAway());
    EXPECT_EQ(readFile(store + ".aside"), damaged);
}

TEST_F(AHubWithAFileThatIsNoStore, LeavesANewerOneAsItIsAndRecovers) {
    start();
    client().log(L"one");
    ASSERT_EQ(hvbd->terminate(), 0);
    ASSERT_FALSE(fs::exists(store + "-wal")) << "a clean end leaves one whole file";
    sqlite("PRAGMA user_version=99");
    const std::string before = readFile(store);
    expectTroubleThenRecovery("cannot open the log store: " + store +
                              " was written by a newer hvbd (layout 99). Install that one again. Or: " + moveAway());
    EXPECT_EQ(readFile(store + ".aside"), before);
}

TEST_F(AHubWithAFileThatIsNoStore, SaysThatADirectoryStandsInItsPlaceAndRecovers) {
    fs::create_directory(store);
    expectTroubleThenRecovery("cannot open the log store: " + store + " is a directory. Move it away.");
}

TEST_F(AHubWithAFileThatIsNoStore, DoesNotWriteThroughASymbolicLinkAndRecovers) {
    const std::string target = root.file("target");
    std::ofstream(target) << "precious";
    fs::create_symlink(target, store);
    expectTroubleThenRecovery("cannot open the log store: " + store +
                              " is a symbolic link, which hvbd does not follow. Move it away.");
    EXPECT_EQ(readFile(target), "precious");
}

TEST_F(AHubsStore, GoesOnInANewFileWhenItsFileWasDeleted) {
    start();
    HubClient sender = client();
    sender.log(L"one");
    fs::remove(store);
    EXPECT_EQ(sender.log(L"two"), 1U);
    EXPECT_EQ(sqlite("SELECT hex(text) FROM log"), "74000000770000006F000000\n");
}

/// Gives the hub's directory a file system of its own that is easily filled. Requires root.
class AHubOnASmallDisk : public AHub {
protected:
    void SetUp() override {
        bus.reset();
        const std::string trouble = disk.mount(root.hubVarDirectory(), "size=1m");
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble << "; a full disk was not tested";
        }
        bus.emplace(root);
    }

    void TearDown() override {
        hvbd.reset();
        bus.reset();
        disk.unmount();
    }

    OwnDisk disk;
};

TEST_F(AHubOnASmallDisk, TellsTheSenderWhenItIsFullAndStoresAgainWhenThereIsRoom) {
    start();
    HubClient sender = client();
    sender.log(L"one");
    disk.fill();
    const std::wstring large(20'000, L'x');
    Refusal refused;
    for (int i = 0; i < 100 && refused == Refusal(); ++i) {
        refused = refusalOf([&] { sender.log(large); });
    }
    const std::string why =
        "cannot store the record: no space is left for " + store + ". Free some on its file system.";
    EXPECT_EQ(refused, troubleWith(why));
    EXPECT_EQ(refusalOf([&] { sender.log(large); }).name, bus::kErrorLogStore);
    expectAlive();
    EXPECT_FALSE(sender.ids().empty()) << "what is stored can still be read";
    disk.free();
    EXPECT_GT(sender.log(large), 1U);
    EXPECT_EQ(lines("log records are stored again"), 1U);
    EXPECT_EQ(sqlite("PRAGMA integrity_check"), "ok\n");
}

TEST_F(AHubOnASmallDisk, StartsOnAFullOneAndStoresOnceThereIsRoom) {
    disk.fill();
    start();
    HubClient sender = client();
    EXPECT_EQ(refusalOf([&] { sender.log(L"one"); }).name, bus::kErrorLogStore);
    expectAlive();
    disk.free();
    EXPECT_EQ(sender.log(L"two"), 1U);
}

} // namespace
