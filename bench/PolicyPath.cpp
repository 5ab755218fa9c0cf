// How fast is the way of a policy, from the broker through the daemon to the settings file and the signal on the hub?
//
// Baselines, in the same run and on the same file system: a bare publish and receive of a message of the same size
// through the same broker, and bare SQLite without a daemon, with the opens and commits that this policy makes. That
// they are as many is checked by the change counters of the two files. What is compared is measured in turn; the
// medians are compared.
//
// Then a fleet: clients of the agent library, in processes of this program, that take a policy of the whole site.
//
// Usage: policy_path [--brief]      SENTRELD_ROOTED and HVBD_ROOTED name the programs.
#include "base/SignalSet.h"
#include "bench/BareFile.h"
#include "platform/hvbagent/AgentClient.h"
#include "tests/support/Machine.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"
#include "tests/support/PolicyAnswers.h"
#include "tests/support/Preferences.h"
#include "tests/support/ProcessMemory.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace bench;
using namespace testing_support;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

/// How much a policy says.
struct Lists {
    int sites;
    int categories;
};

struct Sizes {
    Lists small;
    int smallPolicies;
    Lists large;
    int largePolicies;
    int processes;
    int clients; // of each process
    int sitePolicies;
};
constexpr Sizes kFull{.small{2, 2},
                      .smallPolicies = 150,
                      .large{5000, 100},
                      .largePolicies = 3,
                      .processes = 10,
                      .clients = 50,
                      .sitePolicies = 5};
constexpr Sizes kBrief{.small{2, 2},
                       .smallPolicies = 3,
                       .large{50, 5},
                       .largePolicies = 1,
                       .processes = 2,
                       .clients = 3,
                       .sitePolicies = 1};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

/// Milliseconds that @p work takes.
template <class Work>
double milliseconds(const Work& work) {
    const Clock::time_point begin = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

void require(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw std::runtime_error(otherwise);
    }
}

void row(const std::string& figure, const std::string& measured, const std::string& baseline, const std::string& ratio,
         const std::string& limit) {
    fmt::print("| {} | {} | {} | {} | {} |\n", figure, measured, baseline, ratio, limit);
    std::fflush(stdout);
}

// The policy.

constexpr const char* kSite = "here";
constexpr const char* kMachineTopic = "orvanta/v1/here/m1/";
constexpr std::size_t kSignals = 4; // the enable state, the categories, the ratings, the list

/// A policy whose enable state and ratings are other ones than in the version before; its lists are the same.
std::string policy(int version, const Lists& lists) {
    json sites{{"uiSiteCount", lists.sites}, {"bPrecedenceOverProhibitLists", 1}};
    for (int number = 0; number < lists.sites; ++number) {
        sites[fmt::format("szSite{}", number)] = fmt::format("http://host{}.example/path", number);
        sites[fmt::format("Action{}", number)] = number % 2;
    }
    std::string codes;
    for (int number = 0; number < lists.categories; ++number) {
        codes += fmt::format("{}c{}", number == 0 ? "" : ",", number);
    }
    const bool isEven = version % 2 == 0;
    constexpr int blockWarnAllow = 84;
    constexpr int allowAllowBlock = 265;
    return json{{"version", version},
                {"features",
                 {{"KPF_General",
                   {{"Sentrel", {{"bEnableSentrel", isEven}}},
                    {"ActionEnforcement", {{"uiAgumentIPCount", 1}, {"szAgumentIP_0", "10.0.0.0/8"}}}}},
                  {"KPF_ContentFiltering",
                   {{"ContentActions",
                     {{"bEnableCategorization", 1},
                      {"uiBitCount", lists.categories},
                      {"szActionCodes", std::string(static_cast<std::size_t>(lists.categories), '1')},
                      {"uiContentBitCodes", codes}}},
                    {"RatingActions", {{"uiOverall", isEven ? blockWarnAllow : allowAllowBlock}}}}},
                  {"KPF_BlockAndAllowList", {{"BlockAndAllowList", sites}}}}}}
        .dump();
}

// Bare SQLite.

/// How often a settings file was changed, from its header.
std::uint32_t changesOf(const std::string& path) {
    constexpr std::streamoff counter = 24;
    std::ifstream file(path, std::ios::binary);
    std::array<unsigned char, 4> bytes{};
    file.seekg(counter);
    file.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
    require(file.good(), path + " has no header");
    std::uint32_t changes = 0;
    for (const unsigned char byte : bytes) {
        changes = changes << 8U | byte;
    }
    return changes;
}

/// The writes of one such policy.
void bareWrites(const std::string& path, const Lists& lists) {
    BareFile(path).run(kSetSetting, "Enabled");
    {
        BareFile ranges(path);
        ranges.run(kNoRanges);
        ranges.run(kSetRange, "10.0.0.0/8");
    }
    {
        BareFile categories(path);
        categories.run(kSetSetting, "UNCAT_Block");
        categories.run(kNoCategories);
        for (int number = 0; number < lists.categories; ++number) {
            categories.run(kSetCategory, fmt::format("c{}", number), 1);
        }
    }
    for (const char* rating : {"YellowSiteAction", "RedSiteAction", "UnverifiedSiteAction"}) {
        BareFile(path).run(kSetSetting, rating);
    }
    BareFile urls(path);
    urls.run(kSetSetting, "ALLOW_OVER_Block");
    urls.run(kNoUrls);
    for (int number = 0; number < lists.sites; ++number) {
        urls.run(kSetUrl, fmt::format("http://host{}.example/path", number), number % 2);
    }
}

// The way of one policy.

/// A managed machine, whoever speaks and hears through its broker, and a client of its hub.
class ManagedMachine {
public:
    ManagedMachine() {
        m_machine.setTraceLevels(0);
        m_machine.initSettings();
        const json configuration = {
            {"broker", {{"host", "127.0.0.1"}, {"port", m_broker.port()}}}, {"site", kSite}, {"machine", "m1"}};
        std::ofstream(m_machine.root().hubConfigDirectory() + "/agent.json") << configuration.dump();
        m_machine.startHub();
        require(m_machine.startDaemon(), "the daemon does not start");
        m_signals.listen();
        require(m_hearing.next(topic("properties")).has_value(), "the daemon does not connect");
    }

    static std::string topic(const std::string& name) { return kMachineTopic + name; }
    MqttBroker& broker() { return m_broker; }
    PrivateRoot& root() { return m_machine.root(); }

    /// A settings file beside the daemon's, as it is now.
    std::string bareFile() {
        std::string path = m_machine.root().sharedDirectory() + "/bare.db";
        std::filesystem::copy_file(m_machine.settingsFile(), path, std::filesystem::copy_options::overwrite_existing);
        return path;
    }

    /// From publishing to hearing it, with nobody else in between.
    void carryBare(const std::string& message) {
        m_speaking.publish("orvanta/v1/bare", message, false);
        require(m_hearing.next("orvanta/v1/bare").has_value(), "a bare message is lost");
    }

    /// From publishing to the last signal, which tells that the list is stored.
    void carry(const std::string& message) {
        m_last = message;
        m_speaking.publish(topic("policy"), message);
        m_expected += kSignals;
        constexpr int patiences = 20; // of a long list under a sanitizer
        for (int turn = 0; turn < patiences; ++turn) {
            if (m_signals.waitForEvents(m_expected).size() >= m_expected) {
                return;
            }
        }
        throw std::runtime_error("the signals of a policy do not come");
    }

    /// Waits until the daemon is done with the last policy.
    void settle() {
        require(answerOn(m_hearing, topic("policy/result"), m_last)["enforced"] == true, "a policy is not enforced");
        require(m_hearing.next(topic("properties")).has_value(), "no properties come after a policy");
    }

    std::uint32_t changes() const { return changesOf(m_machine.settingsFile()); }
    int stop() { return m_machine.stopDaemon(); }

private:
    Machine m_machine;
    MqttBroker m_broker{m_machine.root()};
    MqttObserver m_speaking{m_broker.port()};
    MqttObserver m_hearing{m_broker.port()};
    PreferenceClient m_signals{m_machine.bus().socketPath()};
    std::size_t m_expected = 0;
    std::string m_last; ///< the policy that was published last
};

/// Publishes policies of a size, one after the other. @p version is that of the last one, before and after.
void measurePolicy(ManagedMachine& machine, const Lists& lists, int policies, int& version) {
    machine.carry(policy(++version, lists)); // from here on the lists stay as they are
    machine.settle();
    const std::string bare = machine.bareFile();
    const std::uint32_t changesBefore = machine.changes();
    std::vector<double> messages;
    std::vector<double> writes;
    std::vector<double> whole;
    for (int number = 0; number < policies; ++number) {
        const std::string next = policy(++version, lists);
        messages.push_back(milliseconds([&] { machine.carryBare(next); }));
        writes.push_back(milliseconds([&] { bareWrites(bare, lists); }));
        whole.push_back(milliseconds([&] { machine.carry(next); }));
        machine.settle();
    }
    require(changesOf(bare) == machine.changes(), "the daemon does not write what the bare writes do");
    const double baseline = median(messages) + median(writes);
    row(fmt::format("policy of {} sites and {} categories, {} commits", lists.sites, lists.categories,
                    (machine.changes() - changesBefore) / static_cast<unsigned>(policies)),
        fmt::format("{:.1f} ms", median(whole)),
        fmt::format("bare message {:.2f} ms + bare writes {:.1f} ms", median(messages), median(writes)),
        fmt::format("{:.2f}", median(whole) / baseline), "at most 1.5");
}

// The fleet.

/// Stands in for a module: takes what comes.
/// Threads: the library's. Owner: the library.
class AnyPolicy : public HVBEnterprise::IAgentPolicyEnforcement {
public:
    bool enforcePolicy(const std::wstring, const HVBEnterprise::SectionsHandle&) override { return true; }
    bool enforcePolicy(const std::wstring, const std::wstring, const std::wstring, unsigned long,
                       HVBEnterprise::tag_AgentLogonState, const HVBEnterprise::SectionsHandle&) override {
        return true;
    }
    bool isPartialEnforcementSupported() override { return false; }
};

std::string clientName(int number) {
    return fmt::format("c{}", number);
}

/// Runs clients of the library in this process until it is asked to end.
void runClients(int first, int count, int port, const std::string& directory) {
    namespace agent = HVBEnterprise::agent;
    const Sentrel::SignalSet end{SIGTERM};
    end.block(); // before there is any thread
    std::vector<std::unique_ptr<agent::AgentClient>> clients;
    for (int number = first; number < first + count; ++number) {
        const json configuration = {
            {"broker", {{"host", "127.0.0.1"}, {"port", port}}}, {"site", kSite}, {"machine", clientName(number)}};
        clients.push_back(std::make_unique<agent::AgentClient>(
            agent::readAgentConfiguration(configuration.dump()), "BENCH",
            agent::PolicyFiles{directory + "/" + clientName(number) + ".json",
                               directory + "/" + clientName(number) + "-record.json"},
            std::make_shared<agent::AgentLog>(nullptr)));
        clients.back()->begin();
        std::unique_ptr<HVBEnterprise::IAgentPolicyEnforcement> module = std::make_unique<AnyPolicy>();
        require(clients.back()->take(module), "a client takes no service");
    }
    int signal = 0;
    sigwait(&end.get(), &signal);
    for (const auto& client : clients) {
        client->end();
    }
}

/// The processes of clients. They end with this object.
class Fleet {
public:
    Fleet(MqttBroker& broker, PrivateRoot& root) : m_observer(broker.port()), m_port(broker.port()), m_root(root) {}

    /// Adds a process with as many clients, and waits until each of them is connected.
    void add(int clients) {
        const int first = m_clients;
        m_clients += clients;
        m_processes.emplace_back(std::filesystem::read_symlink("/proc/self/exe"),
                                 ChildOptions{.arguments = {"--clients", std::to_string(first), std::to_string(clients),
                                                            std::to_string(m_port), m_root.path()},
                                              .environment = {},
                                              .outputFile = m_root.file("clients.out"),
                                              .uid = {},
                                              .gid = {}});
        for (int number = first; number < m_clients; ++number) {
            require(next(number, "state")["state"] == "online", "a client does not connect");
        }
    }

    /// From publishing a policy of the whole site to the last result.
    double carry(int version) {
        json document = json::parse(policy(version, kFull.small));
        document["audience"] = {{"site", kSite}, {"group", "all"}};
        const std::string message = document.dump();
        return milliseconds([&] {
            m_observer.publish("orvanta/v1/here/group/all/policy", message);
            for (int number = 0; number < m_clients; ++number) {
                const std::string topic = fmt::format("orvanta/v1/here/{}/policy/result", clientName(number));
                require(answerOn(m_observer, topic, message)["enforced"] == true, "a client does not enforce");
            }
        });
    }

    int clients() const { return m_clients; }
    long kilobytes(std::size_t process) const { return processKilobytes(m_processes.at(process).pid()); }
    void end() {
        for (ChildProcess& process : m_processes) {
            require(process.terminate() == 0, "clients do not end well: " + process.output());
        }
    }

private:
    json next(int client, const std::string& topic) {
        const auto message = m_observer.next(fmt::format("orvanta/v1/{}/{}/{}", kSite, clientName(client), topic));
        return message ? json::parse(message->payload) : json();
    }

    MqttObserver m_observer;
    int m_port;
    PrivateRoot& m_root;
    int m_clients = 0;
    std::vector<ChildProcess> m_processes;
};

void measureFleet(MqttBroker& broker, PrivateRoot& root, const Sizes& sizes) {
    Fleet fleet(broker, root);
    fleet.add(1); // what a process weighs without a second client
    for (int process = 0; process < sizes.processes; ++process) {
        fleet.add(process == 0 ? sizes.clients - 1 : sizes.clients);
    }
    std::vector<double> results;
    for (int version = 1; version <= sizes.sitePolicies; ++version) {
        results.push_back(fleet.carry(version));
    }
    row(fmt::format("policy of a site of {} clients in {} processes: the last result", fleet.clients(),
                    sizes.processes + 1),
        fmt::format("{:.0f} ms", median(results)), "-", "-", "-");
    const long alone = fleet.kilobytes(0);
    const long many = fleet.kilobytes(static_cast<std::size_t>(sizes.processes));
    row("resident memory of each further client of a process",
        fmt::format("{:.0f} kB", static_cast<double>(many - alone) / (sizes.clients - 1)),
        fmt::format("{} kB with {}, {} kB with one", many, sizes.clients, alone), "-", "-");
    fleet.end();
}

int measure(const Sizes& sizes) {
    fmt::print("| figure | measured | baseline | ratio | limit |\n|---|---|---|---|---|\n");
    {
        ManagedMachine machine;
        int version = 0;
        measurePolicy(machine, sizes.small, sizes.smallPolicies, version);
        measurePolicy(machine, sizes.large, sizes.largePolicies, version);
        require(machine.stop() == 0, "the daemon does not end well");
    }
    PrivateRoot root;
    MqttBroker broker(root);
    measureFleet(broker, root, sizes);
    return 0;
}

int numberOf(const char* text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), number);
    require(error == std::errc() && *end == '\0', "not a number: " + std::string(text));
    return number;
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const bool ofClients = mode == "--clients" && argc == 6;
    if (argc > 1 && !ofClients && !(mode == "--brief" && argc == 2)) {
        std::fputs("usage: policy_path [--brief]\n", stderr);
        return 2;
    }
    try {
        if (ofClients) {
            runClients(numberOf(argv[2]), numberOf(argv[3]), numberOf(argv[4]), argv[5]);
            return 0;
        }
        return measure(mode.empty() ? kFull : kBrief);
    } catch (const HVB::HVBException& exception) {
        fmt::print(stderr, "policy_path: {}\n", exception.message());
    } catch (const std::exception& exception) {
        fmt::print(stderr, "policy_path: {}\n", exception.what());
    }
    return 1;
}
