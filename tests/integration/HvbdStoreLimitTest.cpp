// hvbd started with a lower limit than its store was filled to. Bus, process and disk are real.
#include "tests/integration/HvbdFixture.h"
#include "tests/support/OwnDisk.h"

#include <algorithm>
#include <chrono>

using namespace testing_support;
namespace fs = std::filesystem;

namespace {

/// A hub with a store of 64 MiB, on a disk that has 12 MiB left. Requires root.
class AHubWithALoweredLimit : public AHub {
protected:
    void SetUp() override {
        bus.reset();
        const std::string trouble = disk.mount(root.hubVarDirectory(), "size=120m");
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble << "; a nearly full disk was not tested";
        }
        bus.emplace(root);
        start();
        client().log(L"first");
        ASSERT_EQ(hvbd->terminate(), 0);
        // In some minutes of its own each, as years of reports are.
        sqlite("PRAGMA journal_mode=DELETE; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
               "18000) "
               "INSERT INTO log(stored_at, source, type, text, detail, count) "
               "SELECT (i / 100) * 60000000, 7, 8, randomblob(3600), x'', 1 FROM n");
        const std::uintmax_t free = fs::space(root.hubVarDirectory()).available;
        std::ofstream(root.hubVarDirectory() + "/filler") << std::string(free - kLeft, 'f');
    }

    void TearDown() override {
        hvbd.reset();
        bus.reset();
        disk.unmount();
    }

    std::uintmax_t walBytes() const {
        std::error_code none;
        const std::uintmax_t bytes = fs::file_size(store + "-wal", none);
        return none ? 0 : bytes;
    }
    std::int64_t storedBytes() const {
        return std::stoll(sqlite("SELECT sum(length(text) + length(detail) + 64) FROM log"));
    }

    static constexpr std::uintmax_t kLeft = std::uintmax_t{12} << 20;
    static constexpr std::int64_t kLimit = std::int64_t{8} << 20;
    OwnDisk disk;
};

TEST_F(AHubWithALoweredLimit, ComesDownToItOnANearlyFullDiskAndAnswersMeanwhile) {
    ASSERT_GT(storedBytes(), 7 * kLimit);
    start({"--log-limit-mib", "8"});
    HubClient sender = client();
    std::chrono::steady_clock::duration longest{};
    std::uintmax_t largestWal = 0;
    std::size_t answered = 0;
    const auto log = [&] {
        const auto begin = std::chrono::steady_clock::now();
        sender.log(std::wstring(500, L'x'));
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
        largestWal = std::max(largestWal, walBytes());
        ++answered;
    };
    log();
    EXPECT_GT(storedBytes(), 5 * kLimit) << "the first record does not wait for all of it to go";
    ASSERT_TRUE(eventually([&] {
        log();
        return answered % 8 == 0 && storedBytes() <= kLimit;
    }));
    EXPECT_LT(longest, std::chrono::milliseconds(1500)) << "the time that a sender waits";
    EXPECT_LT(largestWal, kLeft);
    EXPECT_EQ(sqlite("PRAGMA integrity_check"), "ok\n");
    EXPECT_GT(std::stoi(sqlite("SELECT count(*) FROM log WHERE stored_at > 1000000000000000")), 1)
        << "what was answered is there";
}

TEST_F(AHubWithALoweredLimit, ComesDownToItThoughNoRecordArrives) {
    start({"--log-limit-mib", "8"});
    HubClient other = client();
    ASSERT_TRUE(eventually([&] {
        static_cast<void>(other.statusOf(7)); // answered in between
        return storedBytes() <= kLimit;
    })) << hvbd->output();
}

} // namespace
