// sentrelctl at the event socket. Real: the program, the socket, the bytes. Not real: the daemon's end, which is a
// small listener that the test tells what to do.
#include "apps/sentrelctl/clients/EventRecord.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/UnixSocket.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace testing_support {
namespace {

using namespace std::string_literals;

constexpr std::size_t kReplyBytes = 1024;

std::string padded(std::string text, std::size_t size = kReplyBytes) {
    text.resize(size, '\0');
    return text;
}

/// A listening socket. One that accepts nobody is a daemon that hangs.
class ListeningSocket {
public:
    ListeningSocket(const std::string& path, int backlog) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (!bindSocket(m_fd, path) || ::listen(m_fd, backlog) != 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }
    ~ListeningSocket() { ::close(m_fd); }
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd;
};

/// One connection as its server sees it.
class Served {
public:
    explicit Served(int fd) : m_fd(fd) {}

    /// What one read gives, as the daemon reads.
    std::string readOnce() {
        std::array<char, 4096> part{};
        const ssize_t got = ::recv(m_fd, part.data(), part.size(), 0);
        return {part.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }

    /// Everything until the client closes or has sent @p size bytes.
    std::string read(std::size_t size) {
        std::string all;
        for (std::string part = "?"; all.size() < size && !part.empty();) {
            part = readOnce();
            all += part;
        }
        return all;
    }

    void write(const std::string& text) {
        EXPECT_EQ(::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    /// Says nothing until the client gives up.
    void fallSilent() { read(SIZE_MAX); }

private:
    int m_fd;
};

/// A server at the event socket that does with each client what the test says and closes.
class EventListener {
public:
    EventListener(const std::string& path, std::function<void(Served&)> serve)
        : m_serve(std::move(serve)), m_socket(path, 5), m_thread([this] { run(); }) {}
    ~EventListener() {
        ::shutdown(m_socket.fd(), SHUT_RDWR); // wakes accept
        m_thread.join();
    }
    EventListener(const EventListener&) = delete;
    EventListener& operator=(const EventListener&) = delete;

private:
    void run() {
        for (int client = -1; (client = ::accept4(m_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            Served served(client);
            m_serve(served);
            ::close(client);
        }
    }

    std::function<void(Served&)> m_serve;
    ListeningSocket m_socket;
    std::thread m_thread;
};

/// sentrelctl beside an event socket at which a test's own listener may sit.
class AnEventClient : public testing::Test {
protected:
    std::string socketPath() const { return m_root.sharedDirectory() + "/STIPC"; }

    CtlResult use(const std::vector<std::string>& arguments, const std::string& input = "") {
        return ctl(m_root, arguments, input);
    }

    /// Uses it with a listener that takes each message in one read, as the daemon does.
    CtlResult useHeard(const std::vector<std::string>& arguments, const std::string& input = "") {
        EventListener listener(socketPath(), [this](Served& served) { m_heard.push_back(served.readOnce()); });
        return use(arguments, input);
    }

    /// Uses it with a listener that answers each message with @p reply.
    CtlResult useAnswered(const std::string& reply, const std::vector<std::string>& arguments,
                          const std::string& input = "") {
        EventListener listener(socketPath(), [this, &reply](Served& served) {
            m_heard.push_back(served.readOnce());
            served.write(reply);
        });
        return use(arguments, input);
    }

    void expectFailure(const CtlResult& result, int code, const std::string& error) {
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "sentrelctl: " + error + "\n");
    }

    PrivateRoot m_root;
    std::vector<std::string> m_heard; ///< written by the listener's thread, read after its end
};

TEST_F(AnEventClient, SendsASampleRecordInOneWrite) {
    const CtlResult result = useHeard({"event", "send"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "Sent 1 message of 392 bytes to " + socketPath() + "; the daemon has taken it.\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(m_heard, std::vector{Sentrel::ctl::recordBytes(Sentrel::ctl::RecordFields())});
}

TEST_F(AnEventClient, SendsEveryFieldThatIsGiven) {
    const CtlResult result = useHeard({"event",
                                       "send",
                                       "--event-id",
                                       "id",
                                       "--url",
                                       "http://caf\xC3\xA9.example/b",
                                       "--browser",
                                       "firefox",
                                       "--rating",
                                       "-100",
                                       "--action",
                                       "warn",
                                       "--in-list",
                                       "2",
                                       "--list-blocks=3",
                                       "--blocked-in-category",
                                       "4",
                                       "--category",
                                       "-5",
                                       "--phishing",
                                       "6",
                                       "--reputation-reachable",
                                       "0",
                                       "--count",
                                       "2147483647",
                                       "--user-action",
                                       "8"});
    EXPECT_EQ(result.code, 0) << result.err;
    Sentrel::ctl::RecordFields fields;
    fields.eventId = "id";
    fields.url = "http://caf\xC3\xA9.example/b";
    fields.browser = "firefox";
    fields.rating = -100;
    fields.action = 2;
    fields.inList = 2;
    fields.listBlocks = 3;
    fields.blockedInCategory = 4;
    fields.category = -5;
    fields.phishing = 6;
    fields.reputationReachable = 0;
    fields.count = INT32_MAX;
    fields.userAction = 8;
    EXPECT_EQ(m_heard, std::vector{Sentrel::ctl::recordBytes(fields)});
}

TEST_F(AnEventClient, TakesAnOptionAloneAsOne) {
    const CtlResult result =
        useHeard({"event", "send", "--in-list", "--list-blocks", "--blocked-in-category", "--phishing"});
    EXPECT_EQ(result.code, 0) << result.err;
    Sentrel::ctl::RecordFields fields;
    fields.inList = fields.listBlocks = fields.blockedInCategory = fields.phishing = 1;
    EXPECT_EQ(m_heard, std::vector{Sentrel::ctl::recordBytes(fields)});
}

TEST_F(AnEventClient, SendsEachRepetitionOnItsOwnConnection) {
    const CtlResult result = useHeard({"event", "send", "--repeat", "12"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "Sent 12 messages of 392 bytes to " + socketPath() + "; the daemon has taken it.\n");
    EXPECT_EQ(m_heard, std::vector(12, Sentrel::ctl::recordBytes(Sentrel::ctl::RecordFields())));
}

TEST_F(AnEventClient, TellsInJsonWhatWasSent) {
    const CtlResult result = useHeard({"--json=short", "event", "send", "--url", "http://a.example/"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, R"({"socket":")" + socketPath() +
                              R"(","messages":1,"bytes":392,"taken":true,"record":{"event_id":"sentrelctl",)"
                              R"("url":"http://a.example/","browser":"sentrelctl","rating":50,"action":3,)"
                              R"("in_list":0,"list_blocks":0,"blocked_in_category":0,"category":0,"phishing":0,)"
                              R"("reputation_reachable":1,"count":1,"user_action":0}})"
                              "\n");
}

TEST_F(AnEventClient, SendsRawBytesOfAnyLengthAsTheyAre) {
    std::string big;
    for (int at = 0; at < 100'000; ++at) {
        big += static_cast<char>(at % 251);
    }
    for (const std::string& bytes : {""s, "x"s, "\0\n\xFF"s, big}) {
        std::string heard = "nothing";
        const CtlResult result = [&] { // the listener's thread has ended when this is done
            EventListener listener(socketPath(),
                                   [&](Served& served) { heard = served.read(std::max(bytes.size(), 1UL)); });
            return use({"event", "send", "--raw", "-"}, bytes);
        }();
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(heard, bytes);
        ::unlink(socketPath().c_str());
    }
}

TEST_F(AnEventClient, SendsRawBytesFromAFile) {
    const CtlResult result = useHeard({"event", "send", "--raw", "/proc/self/cmdline", "-j"});
    EXPECT_EQ(result.code, 0) << result.err;
    ASSERT_EQ(m_heard.size(), 1U);
    EXPECT_TRUE(m_heard.front().ends_with("event\0send\0--raw\0/proc/self/cmdline\0-j\0"s));
    EXPECT_EQ(result.out, R"({"socket":")" + socketPath() + R"(","messages":1,"bytes":)" +
                              std::to_string(m_heard.front().size()) + R"(,"taken":true,"record":null})" + "\n");
    expectFailure(use({"event", "send", "--raw", "/none"}), 1, "cannot read: /none: No such file or directory.");
}

TEST_F(AnEventClient, IsContentWithADaemonThatDropsTheRestOfALongMessage) {
    // The daemon reads once and closes on what it did not read, which resets the connection.
    const CtlResult result = useHeard({"event", "send", "--raw", "-"}, std::string(5000, 'x'));
    EXPECT_EQ(result.code, 0) << result.err;
}

TEST_F(AnEventClient, NeedsNoAnswerWhenItDoesNotWait) {
    EventListener listener(socketPath(), [this](Served& served) {
        m_heard.push_back(served.readOnce());
        served.fallSilent();
    });
    const CtlResult result = use({"event", "send", "--no-wait"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, "Sent 1 message of 392 bytes to " + socketPath() + ".\n");
}

TEST_F(AnEventClient, TimesOutWhenTheDaemonHoldsTheConnection) {
    EventListener listener(socketPath(), [](Served& served) { served.fallSilent(); });
    expectFailure(use({"event", "send", "--timeout", "0.1"}), 3,
                  "no answer: " + socketPath() +
                      ": the daemon did not react in time. It serves one client at a time: try again, or give it "
                      "longer with --timeout.");
}

TEST_F(AnEventClient, TimesOutWhenNobodyTakesTheConnection) {
    const ListeningSocket full(socketPath(), 0);
    const CtlResult first = use({"event", "send", "--no-wait"}); // fills the queue
    EXPECT_EQ(first.code, 0) << first.err;
    expectFailure(use({"event", "send", "--timeout", "0.1"}), 3,
                  "cannot connect to the event socket: " + socketPath() +
                      ": the daemon did not react in time. It serves one client at a time: try again, or give it "
                      "longer with --timeout.");
}

TEST_F(AnEventClient, SaysThatTheDaemonIsNotRunning) {
    expectFailure(use({"event", "send"}), 8,
                  "cannot connect to the event socket: " + socketPath() +
                      ": No such file or directory. Start sentreld, then try again.");
    { const ListeningSocket leftBehind(socketPath(), 1); }
    expectFailure(use({"decrypt", "text"}), 8,
                  "cannot connect to the event socket: " + socketPath() +
                      ": Connection refused. Start sentreld, then try again.");
}

TEST_F(AnEventClient, SaysThatItHasNoAccess) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can run a program as somebody else";
    }
    const ListeningSocket listening(socketPath(), 5);
    ASSERT_EQ(::chmod(socketPath().c_str(), 0600), 0);
    expectFailure(ctl(m_root, {"event", "send"}, "", kNobody), 4,
                  "cannot connect to the event socket: " + socketPath() + ": Permission denied.");
}

TEST_F(AnEventClient, SaysThatThePathIsTooLongForASocket) {
    PrivateRoot deep;
    const CtlResult result =
        shell(deep, "SENTREL_INSTALL_ROOT=/nowhere/" + std::string(100, 'd') + " \"$CTL\" event send");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "sentrelctl: cannot connect to the event socket: /nowhere/" + std::string(100, 'd') +
                              "/Users/Shared/.orvanta/STIPC: a socket's path has at most 107 bytes.\n");
}

TEST_F(AnEventClient, DecryptsTheTextOnItsStandardInput) {
    const CtlResult result = useAnswered(padded("secret"), {"decrypt"}, "AbC+/=\n");
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "secret\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(m_heard, std::vector{"Decrypt AbC+/=\0"s});
}

TEST_F(AnEventClient, DecryptsTheTextOnItsCommandLine) {
    const CtlResult result = useAnswered(padded("secret"), {"decrypt", "AbC", "--json=short"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "{\"text\":\"secret\"}\n");
    EXPECT_EQ(m_heard, std::vector{"Decrypt AbC\0"s});
}

TEST_F(AnEventClient, SendsTheLongestEncryptedTextThatFits) {
    const std::string longest(1015, 'e');
    EXPECT_EQ(useAnswered(padded("secret"), {"decrypt", "-"}, longest).code, 0);
    EXPECT_EQ(m_heard, std::vector{"Decrypt " + longest + "\0"s});
}

TEST_F(AnEventClient, GivesAProgramTheVeryBytesOfAPassword) {
    EXPECT_EQ(useAnswered(padded("p\xE9\x1b[1m"), {"decrypt", "x"}).out, "p\xE9\x1b[1m\n");
}

TEST_F(AnEventClient, ShowsAPasswordOnATerminalWithoutLettingItDriveIt) {
    if (!hasTerminals()) {
        GTEST_SKIP() << "no pseudo-terminals here; a password on a terminal was not tested";
    }
    EventListener listener(socketPath(), [](Served& served) {
        served.readOnce();
        served.write(padded("p\xE9\x1b[1m"));
    });
    EXPECT_EQ(shell(m_root, "script -qec '\"$CTL\" decrypt x' /dev/null").out, "p\\xe9\\x1b[1m\r\n");
}

TEST_F(AnEventClient, TakesAReplyThatArrivesInParts) {
    EventListener listener(socketPath(), [](Served& served) {
        served.readOnce();
        const std::string reply = padded("secret");
        for (std::size_t at = 0; at < reply.size(); at += 128) {
            served.write(reply.substr(at, 128));
        }
    });
    EXPECT_EQ(use({"decrypt", "x"}).out, "secret\n");
}

TEST_F(AnEventClient, SaysWhatAnEmptyReplyCanMean) {
    expectFailure(useAnswered(padded(""), {"decrypt", "x"}), 1,
                  "cannot decrypt: " + socketPath() +
                      ": the answer is empty. Either this machine has no management agent, or the text was not "
                      "encrypted with its key.");
}

TEST_F(AnEventClient, RefusesAReplyThatIsNotWhole) {
    expectFailure(useAnswered(std::string(100, 's'), {"decrypt", "x"}), 1,
                  "cannot decrypt: " + socketPath() +
                      ": the daemon closed after 100 of 1024 bytes. The trace log of sentreld may tell why.");
}

TEST_F(AnEventClient, RefusesAConnectionThatIsClosedWithoutAReply) {
    EventListener listener(socketPath(), [](Served& served) { served.readOnce(); });
    expectFailure(use({"decrypt", "x"}), 1,
                  "cannot decrypt: " + socketPath() +
                      ": the daemon closed after 0 of 1024 bytes. The trace log of sentreld may tell why.");
}

TEST_F(AnEventClient, TimesOutInTheMiddleOfAReply) {
    EventListener listener(socketPath(), [](Served& served) {
        served.readOnce();
        served.write(std::string(100, 's'));
        served.fallSilent();
    });
    EXPECT_EQ(use({"decrypt", "x", "--timeout", "0.1"}).code, 3);
}

} // namespace
} // namespace testing_support
