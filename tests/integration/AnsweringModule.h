// sentrelctl and a module in the daemon's place. Real: the program, the bus with the shipped policy, the broker. Not
// real: the module, which answers each command as the test says.
#pragma once

#include "hub/HVBCommBroker.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

/// Answers each command of the hub as it was last told; without an answer it knows no command.
/// Threads: any. Owner: the fixture, which ends the broker before it.
class AnsweringModule : public HVB::CommandInterface {
public:
    /// Fills a result, which has the command already.
    using Answer = std::function<void(HVB::CommandResult&)>;

    explicit AnsweringModule(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(m_socketPath); }

    void setAnswer(Answer answer) {
        const std::lock_guard lock(m_mutex);
        m_answer = std::move(answer);
    }

    bool handleCommand(HVB::CommandData& data) override {
        HVB::CommandResult result;
        result.m_commandData = data;
        {
            const std::lock_guard lock(m_mutex);
            if (!m_answer) {
                return false;
            }
            m_answer(result);
        }
        broker().sendCommandResponse(result);
        return true;
    }
    void handleCommandResponse(HVB::CommandResult& /*result*/) override {}

private:
    std::string m_socketPath;
    std::mutex m_mutex;
    Answer m_answer; ///< guarded by m_mutex
};

class AModuleThatAnswers : public testing::Test {
protected:
    using Answer = AnsweringModule::Answer;

    AModuleThatAnswers() : m_bus(m_root), m_module(m_bus.socketPath()) {
        m_module.broker().setHVId(HVB::MODULE_SENTREL);
        m_module.broker().setCommandInterface(&m_module);
        m_module.broker().start(true);
    }
    ~AModuleThatAnswers() override { HVB::HVBCommBroker::releaseInstance(); }

    AnsweringModule& answeringModule() { return m_module; }

    /// Uses sentrelctl while every command is answered so.
    CtlResult useWith(Answer answer, const std::vector<std::string>& arguments) {
        m_module.setAnswer(std::move(answer));
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
    AnsweringModule m_module;
};

} // namespace testing_support
