// An agent library whose answers a test decides, in the place of the real one. It records the order of calls. Real: the
// wrapper around it. Not real: the agent, its threads, its cipher.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

/// What stands behind HVBEnterprise::MsgBusEnterpriseAgent in this program.
/// Threads: any. Owner: one a process, fresh for each test.
class RecordingAgent {
public:
    static RecordingAgent& instance();

    std::vector<std::string> calls();
    void add(const std::string& call);

    bool present = true;                                    ///< whether createInstance gives a client
    std::wstring status = L"0";                             ///< what getAgentInformation answers
    std::function<std::string(const std::string&)> decrypt; ///< gives the clear text
    std::function<void(const std::string&)> before;         ///< called with each call; what it throws leaves the call

private:
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

} // namespace testing_support
