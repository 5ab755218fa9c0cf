// sentrelctl and a module in the daemon's place. Real: the program, the bus with the shipped policy, the broker. Not
// real: the module, which answers each command as the test says.
#pragma once

#include "hub/HVBCommBroker.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

class AModuleThatAnswers : public testing::Test, protected HVB::CommandInterface {
protected:
    /// Fills a result, which has the command already.
    using Answer = std::function<void(HVB::CommandResult&)>;

    AModuleThatAnswers() : m_bus(m_root) {
        broker().setHVId(HVB::MODULE_SENTREL);
        broker().setCommandInterface(this);
        broker().start(true);
    }
    ~AModuleThatAnswers() override { HVB::HVBCommBroker::releaseInstance(); }

    bool handleCommand(HVB::CommandData& data) override {
        HVB::CommandResult result;
        result.m_commandData = data;
        m_answer(result);
        broker().sendCommandResponse(result);
        return true;
    }
    void handleCommandResponse(HVB::CommandResult& /*result*/) override {}

    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(m_bus.socketPath()); }

    /// Uses sentrelctl while every command is answered so.
    CtlResult useWith(Answer answer, const std::vector<std::string>& arguments) {
        m_answer = std::move(answer);
        return ctl(m_root, arguments);
    }

    /// As useWith; expects that sentrelctl fails and says @p error.
    void expectFailure(Answer answer, const std::vector<std::string>& arguments, const std::string& error) {
        const CtlResult result = useWith(std::move(answer), arguments);
        EXPECT_EQ(result.code, 1) << error;
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(result.err.starts_with("sentrelctl: " + error)) << result.err;
    }

    template <class Value>
    static Answer answerWith(Value value) {
        return [value](HVB::CommandResult& result) { result.writePayload(value); };
    }

private:
    PrivateRoot m_root;
    HubBus m_bus;
    Answer m_answer; ///< set while no command is on its way
};

} // namespace testing_support
