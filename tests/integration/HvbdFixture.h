// hvbd on a real bus in a private root, spoken to as any client does. Everything here is real.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

inline std::string requiredEnvironment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) {
        throw std::runtime_error(std::string(name) + " must name the program under test");
    }
    return value;
}

/// One client of hvbd.
/// Threads: one at a time. Owner: the test.
class HubClient {
public:
    struct Record {
        std::uint64_t id = 0;
        std::int64_t storedAt = 0;
        std::int32_t source = 0;
        std::int32_t type = 0;
        std::wstring text;
        std::wstring detail;
        std::int32_t count = 0;
    };

    explicit HubClient(const std::string& socketPath) : m_bus(HVB::bus::openBus(socketPath, patience())) {}

    sd_bus& bus() { return *m_bus; }

    HVB::bus::MessagePtr newCall(const char* member) {
        return HVB::bus::newCall(*m_bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface, member);
    }
    HVB::bus::MessagePtr newLog(const std::wstring& text, const std::wstring& detail = L"") {
        auto message = newCall(HVB::bus::kLogMember);
        HVB::bus::check(sd_bus_message_append(message.get(), "ii", 7, 8), "append");
        HVB::bus::appendText(*message, text);
        HVB::bus::appendText(*message, detail);
        HVB::bus::check(sd_bus_message_append(message.get(), "i", 1), "append");
        return message;
    }
    /// Stores a record with a number. @return its id. @throws CallError
    std::uint64_t logNumbered(std::uint64_t instance, std::uint64_t number, const std::wstring& text) {
        auto message = newCall(HVB::bus::kLogNumberedMember);
        HVB::bus::check(sd_bus_message_append(message.get(), "ttii", instance, number, 7, 8), "append");
        HVB::bus::appendText(*message, text);
        HVB::bus::appendText(*message, L"");
        HVB::bus::check(sd_bus_message_append(message.get(), "i", 1), "append");
        const auto reply = call(*message);
        std::uint64_t id = 0;
        HVB::bus::check(sd_bus_message_read(reply.get(), HVB::bus::kLogReplySignature, &id), "read");
        return id;
    }
    HVB::bus::MessagePtr call(sd_bus_message& message) { return HVB::bus::call(*m_bus, message, patience()); }

    /// Stores a record. @return its id. @throws CallError
    std::uint64_t log(const std::wstring& text, const std::wstring& detail = L"") {
        const auto reply = call(*newLog(text, detail));
        std::uint64_t id = 0;
        HVB::bus::check(sd_bus_message_read(reply.get(), HVB::bus::kLogReplySignature, &id), "read");
        return id;
    }

    void logMessage(std::int32_t level, const std::wstring& line, std::int32_t module = 7) {
        auto message = newCall(HVB::bus::kLogMessageMember);
        HVB::bus::check(sd_bus_message_append(message.get(), "i", module), "append");
        HVB::bus::appendText(*message, L"Sentrel");
        HVB::bus::check(sd_bus_message_append(message.get(), "ii", 8, level), "append");
        HVB::bus::appendText(*message, line);
        call(*message);
    }

    std::vector<Record> read(std::uint64_t after = 0, std::uint32_t limit = 1000, bool newest = false) {
        auto message = newCall(HVB::bus::kReadLogMember);
        HVB::bus::check(sd_bus_message_append(message.get(), HVB::bus::kReadLogSignature, after, limit, newest ? 1 : 0),
                        "append");
        const auto reply = call(*message);
        std::vector<Record> records;
        HVB::bus::check(sd_bus_message_enter_container(reply.get(), 'a', "(txiiayayi)"), "enter");
        while (sd_bus_message_enter_container(reply.get(), 'r', "txiiayayi") > 0) {
            Record record;
            HVB::bus::check(
                sd_bus_message_read(reply.get(), "txii", &record.id, &record.storedAt, &record.source, &record.type),
                "read");
            record.text = HVB::bus::readText(*reply);
            record.detail = HVB::bus::readText(*reply);
            HVB::bus::check(sd_bus_message_read(reply.get(), "i", &record.count), "read");
            HVB::bus::check(sd_bus_message_exit_container(reply.get()), "exit");
            records.push_back(std::move(record));
        }
        return records;
    }

    std::vector<std::uint64_t> ids(std::uint64_t after = 0, std::uint32_t limit = 1000, bool newest = false) {
        std::vector<std::uint64_t> found;
        for (const Record& record : read(after, limit, newest)) {
            found.push_back(record.id);
        }
        return found;
    }

    /// What Status tells of a module.
    struct ModuleStatus {
        std::string state;
        std::string since;
        std::string problem;
    };
    std::optional<ModuleStatus> statusOf(int moduleId) {
        const auto reply = call(*newCall(HVB::bus::kStatusMember));
        HVB::bus::check(sd_bus_message_enter_container(reply.get(), 'a', HVB::bus::kStatusEntry), "enter");
        int id = 0;
        const char* state = nullptr;
        const char* since = nullptr;
        const char* problem = nullptr;
        while (sd_bus_message_read(reply.get(), HVB::bus::kStatusEntry, &id, &state, &since, &problem) > 0) {
            if (id == moduleId) {
                return ModuleStatus{state, since, problem};
            }
        }
        return std::nullopt;
    }

    /// The state that Status tells of a module; empty when it tells none.
    std::string healthOf(int moduleId) {
        const auto status = statusOf(moduleId);
        return status ? status->state : "";
    }

private:
    HVB::bus::BusPtr m_bus;
};

/// An error reply as a test compares it.
struct Refusal {
    std::string name;
    std::string text;

    bool operator==(const Refusal&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Refusal& refusal) {
    return out << refusal.name << ": " << refusal.text;
}

/// The error reply that @p action meets; names are empty when it meets none.
template <class Action>
Refusal refusalOf(Action&& action) {
    try {
        action();
    } catch (const HVB::bus::CallError& error) {
        return {error.name(), error.message()};
    }
    return {};
}

/// A root with a bus, and hvbd when it was started.
class AHub : public testing::Test {
protected:
    /// Starts hvbd and waits until it serves. @throws std::runtime_error when it does not.
    void start(std::vector<std::string> arguments = {}) {
        arguments.emplace_back("--log-to-stderr");
        std::filesystem::remove(root.file("hvbd.out"));
        hvbd.emplace(program, options(std::move(arguments)));
        bool serves = false;
        static_cast<void>(eventually([&] { return (serves = lines("]: started") == 1) || !hvbd->isRunning(); }));
        if (!serves) {
            throw std::runtime_error("hvbd does not serve: " + hvbd->output());
        }
    }

    ChildOptions options(std::vector<std::string> arguments) const {
        return {.arguments = std::move(arguments),
                .environment = {"SENTREL_INSTALL_ROOT=" + root.path().string()},
                .outputFile = root.file("hvbd.out"),
                .uid = hvbdUser,
                .gid = {}};
    }

    void kill9() {
        hvbd->kill(SIGKILL);
        ASSERT_EQ(hvbd->waitUntil(patience()), -SIGKILL);
    }

    HubClient client() const { return HubClient(root.hubSocket()); }

    /// How often @p text stands in what hvbd wrote to its log.
    std::size_t lines(const std::string& text) const {
        const std::string output = hvbd->output();
        std::size_t count = 0;
        for (std::size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    /// What the sqlite3 program says to @p sql about the store.
    std::string sqlite(const std::string& sql) const {
        const std::string outputFile = root.file("sqlite3.out");
        std::filesystem::remove(outputFile);
        ChildProcess program3("sqlite3", {.arguments = {"-bail", store, ".timeout 5000", sql},
                                          .environment = {},
                                          .outputFile = outputFile,
                                          .uid = {},
                                          .gid = {}});
        EXPECT_EQ(program3.waitUntil(patience()), 0) << program3.output();
        return program3.output();
    }

    void expectAlive() { EXPECT_TRUE(hvbd->isRunning()) << hvbd->output(); }

    const std::string program = requiredEnvironment("HVBD_ROOTED");
    PrivateRoot root;
    const std::string store = root.hubVarDirectory() + "/hvblog.db";
    std::optional<HubBus> bus{root};
    std::optional<uid_t> hvbdUser; ///< whom hvbd runs as; by default who runs the test
    std::optional<ChildProcess> hvbd;
};

} // namespace testing_support
