// The service for requests when what it needs is not to be had: no thread, a clock that is set. Bus, book and worker
// are real; nobody serves the settings, so no entry is ever taken out, and each try can be seen.
#include "apps/hvbd/AccessService.h"

#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <system_error>

namespace {

using namespace HVB;

/// While it lives, this thread is another user's, who may have no further one; it keeps root's way to the files.
class NoThreads {
public:
    NoThreads() {
        ::getrlimit(RLIMIT_NPROC, &m_before);
        const rlimit none{0, m_before.rlim_max};
        ::setrlimit(RLIMIT_NPROC, &none);
        setUsers(testing_support::kNobody, testing_support::kNobody, 0);
        ::setfsuid(0);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;
    ~NoThreads() {
        setUsers(0, 0, 0);
        ::setfsuid(0);
        ::setrlimit(RLIMIT_NPROC, &m_before);
    }

private:
    /// Of this thread: the library's call is for all of them.
    static void setUsers(uid_t real, uid_t effective, uid_t saved) {
        if (::syscall(SYS_setresuid, real, effective, saved) != 0) {
            throw std::system_error(errno, std::system_category(), "setresuid");
        }
    }

    rlimit m_before{};
};

/// A hub with a grant that is over.
class AnAccessService : public testing::Test {
protected:
    void SetUp() override {
        if (!testing_support::canActAsOthers()) {
            GTEST_SKIP() << "only root can take the threads from itself and have them again";
        }
        const std::uint64_t request = m_book.ask(1000, "http://a.example/", "", 1);
        m_book.confirmGrant(m_book.beginGrant({request, "a.example", 5, {}}, 0, 2), 3);
    }

    /// Runs the loop until work is under way, which there is only in a try to take the entry out.
    bool triesSoon() {
        return testing_support::eventually([this] { return runOnce(), m_worker.isBusy(); });
    }
    bool gaveUpSoon() {
        return testing_support::eventually([this] { return runOnce(), !m_worker.isBusy(); });
    }
    static hub::EventPtr newLoop() {
        sd_event* made = nullptr;
        bus::check(sd_event_new(&made), "loop");
        return hub::EventPtr(made);
    }
    void runOnce() {
        while (sd_bus_process(m_served.get(), nullptr) > 0 || sd_bus_process(m_client.get(), nullptr) > 0) {
        }
        bus::check(sd_event_run(m_loop.get(), 10'000), "run");
    }

    bus::MessagePtr call(const char* member) {
        const char* name = nullptr;
        bus::check(sd_bus_get_unique_name(m_served.get(), &name), "name");
        return bus::newCall(*m_client, name, bus::kRequestsPath, bus::kRequestsInterface, member);
    }
    /// @param answer what it is refused with, or "done".
    void send(sd_bus_message& request, std::string& answer) {
        bus::check(sd_bus_call_async(m_client.get(), nullptr, &request, onAnswer, &answer, 0), "call");
    }
    static int onAnswer(sd_bus_message* reply, void* answer, sd_bus_error* /*error*/) {
        const sd_bus_error* const error = sd_bus_message_get_error(reply);
        *static_cast<std::string*>(answer) = error != nullptr ? error->message : "done";
        return 0;
    }

    testing_support::PrivateRoot m_root;
    testing_support::HubBus m_bus{m_root};
    hub::SystemLog m_log{hub::SystemLog::Echo::None};
    hub::EventPtr m_loop = newLoop();
    bus::BusPtr m_served = bus::openBus(m_root.hubSocket(), testing_support::patience());
    bus::BusPtr m_client = bus::openBus(m_root.hubSocket(), testing_support::patience());
    hub::AccessBook m_book{m_root.path().string() + "/requests.db"};
    hub::ListWorker m_worker{*m_loop, m_root.hubSocket(), m_log};
    std::int64_t m_ahead = 0; ///< microseconds
    hub::AccessService m_service{*m_loop, m_book, m_worker, m_log,
                                 [this] { return hub::AccessService::systemTime() + m_ahead; }};
};

TEST_F(AnAccessService, TriesAgainWhenThereWasNoThreadToTakeAnEntryOut) {
    {
        const NoThreads none;
        m_service.connected(*m_served);
        EXPECT_FALSE(m_worker.isBusy());
    }
    EXPECT_TRUE(triesSoon());
}

TEST_F(AnAccessService, DeniesNoRequestWhileItIsBeingGranted) {
    const std::uint64_t request = m_book.ask(1000, "http://b.example/", "", 4);
    const bus::BusPtr silentHub = bus::openBus(m_root.hubSocket(), testing_support::patience());
    bus::check(sd_bus_request_name(silentHub.get(), bus::kHubName, 0), "name"); // the grant waits for it
    m_book.takeOff(m_book.due(10));
    m_service.connected(*m_served);
    std::string granted;
    std::string denied;
    const auto grant = call(bus::kGrantRequestMember);
    bus::check(sd_bus_message_append(grant.get(), bus::kGrantRequestSignature, request, "b.example", 60), "append");
    send(*grant, granted);
    EXPECT_TRUE(triesSoon());
    const auto deny = call(bus::kDenyRequestMember);
    bus::check(sd_bus_message_append(deny.get(), bus::kDenyRequestSignature, request, "no"), "append");
    send(*deny, denied);
    EXPECT_TRUE(testing_support::eventually([&] { return runOnce(), !denied.empty(); }));
    EXPECT_EQ(denied, "request 2 is being granted just now: see what comes of that");
    EXPECT_EQ(granted, "");
}

TEST_F(AnAccessService, TriesAgainThoughTheClockIsSetBack) {
    constexpr std::int64_t year = std::int64_t{365} * 24 * 3600 * 1'000'000;
    m_ahead = year;
    m_service.connected(*m_served);
    EXPECT_TRUE(m_worker.isBusy());
    EXPECT_TRUE(gaveUpSoon());
    m_ahead = 0;
    EXPECT_TRUE(triesSoon());
}

} // namespace
