// Many clients that read and write the preferences at once.
#include "hub/Exceptions.h"
#include "tests/integration/PreferenceStoreFixture.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace testing_support {
namespace {

using namespace Sentrel;

/// Runs each of @p clients on a thread of its own, with a connection of its own, and waits for all of them.
void atOnce(const std::string& socketPath, const std::vector<std::function<void(WireClient&)>>& clients) {
    std::vector<std::thread> threads;
    threads.reserve(clients.size());
    std::atomic<std::size_t> ready{0};
    for (const auto& run : clients) {
        threads.emplace_back([&] {
            try {
                WireClient wire(socketPath);
                ++ready;
                eventually([&] { return ready == clients.size(); });
                run(wire);
            } catch (const HVB::HVBException& exception) {
                ADD_FAILURE() << exception.message();
            } catch (const std::exception& exception) {
                ADD_FAILURE() << exception.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(APreferenceStore, GivesEachOfEightClientsAtOnceItsOwnReplies) {
    constexpr int writes = 100;
    constexpr int reads = 500;
    std::atomic<int> replies{0};
    std::vector<std::function<void(WireClient&)>> clients;
    // What only one client writes, it must read back. These three are kept in memory also when the file is busy.
    for (const STPrefType type : {ST_RED_SITE_ACTION, ST_YELLOW_SITE_ACTION, ST_UNRATED_SITE_ACTION}) {
        clients.emplace_back([&replies, type](WireClient& wire) {
            for (int value = 1000 * type; value < 1000 * type + writes; ++value) {
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withAction(type, value))), ST_ERROR_NONE);
                const STPreferences answer = wire.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(type));
                ASSERT_EQ(answer.m_prefType, type);
                ASSERT_EQ(std::max({answer.m_redSiteAction, answer.m_yellowSiteAction, answer.m_unratedSiteAction}),
                          value);
                replies += 2;
            }
        });
    }
    for (const STPrefType type : {ST_ENABLE, ST_SAFE_SEARCH, ST_UNVERIFIED_ACTION, ST_ALLOW_BLOCK_LIST}) {
        clients.emplace_back([&replies, type](WireClient& wire) {
            for (int read = 0; read < reads; ++read) {
                ASSERT_EQ(wire.snapshot(ST_GET_PREFS_INDIVIDUAL, payloadOf<int>(type)).m_prefType, type);
                ++replies;
            }
        });
    }
    clients.emplace_back([&replies](WireClient& wire) {
        for (int read = 0; read < reads; ++read) {
            ASSERT_EQ(wire.snapshot(ST_GET_PREFS).m_prefType, ST_ALL_PREFERENCES);
            ++replies;
        }
    });
    atOnce(machine.bus().socketPath(), clients);
    EXPECT_EQ(replies, 3 * 2 * writes + 5 * reads);
}

TEST_F(APreferenceStore, SurvivesListsReplacedByManyClientsAtOnce) {
    constexpr int replacements = 5;
    constexpr int rows = 8;
    constexpr int writers = 4;
    std::vector<std::function<void(WireClient&)>> clients;
    clients.reserve(writers);
    for (int writer = 0; writer < writers; ++writer) {
        clients.emplace_back([writer](WireClient& wire) {
            for (int replacement = 0; replacement < replacements; ++replacement) {
                Urls urls;
                CategoryBlockDetails categories;
                for (int row = 0; row < rows; ++row) {
                    urls.emplace_back("u" + std::to_string(writer) + "." + std::to_string(row), writer);
                    categories["c" + std::to_string(writer) + "." + std::to_string(row)] = 1;
                }
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withUrls(urls))), ST_ERROR_NONE);
                ASSERT_EQ(wire.code(ST_SET_PREFS_INDIVIDUAL, payloadOf(withCategories(categories))), ST_ERROR_NONE);
            }
        });
    }
    for (int reader = 0; reader < 4; ++reader) {
        clients.emplace_back([](WireClient& wire) {
            for (int read = 0; read < 100; ++read) {
                for (const auto& [url, value] : urlsOf(wire.snapshot(ST_GET_PREFS))) {
                    ASSERT_EQ(url.substr(0, 3), "u" + std::to_string(value) + ".") << "a row of two clients";
                }
            }
        });
    }
    atOnce(machine.bus().socketPath(), clients);
    EXPECT_TRUE(machine.daemon().isRunning()) << machine.daemon().output();
    EXPECT_EQ(machine.sql("pragma integrity_check"), "ok\n");
    EXPECT_EQ(machine.sql("select count(*) from allowblocksettings where substr(name, 2, 1) <> cast(value as text)"),
              "0\n");
    std::string inMemory;
    for (const auto& [url, value] : urlsOf(client.getAll())) {
        inMemory += url + "|" + std::to_string(value) + "\n";
    }
    EXPECT_FALSE(inMemory.empty());
    EXPECT_EQ(machine.sql("select name, value from allowblocksettings order by value desc"), inMemory)
        << "memory is what the file holds";
    client.setOne(withUrls({{"last.example", 1}}));
    EXPECT_EQ(urlsOf(client.getAll()), (Urls{{"last.example", 1}}));
}

} // namespace
} // namespace testing_support
