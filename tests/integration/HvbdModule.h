// A module beside hvbd, which is this test's own process, and its configuration.
#pragma once

#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/integration/HvbdFixture.h"

#include <gtest/gtest.h>

namespace testing_support {

/// A hub with a broker in this process that sends it commands.
class AHubWithAModule : public AHub {
protected:
    ~AHubWithAModule() override { HVB::HVBCommBroker::releaseInstance(); }

    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(root.hubSocket()); }

    void configure(const std::string& inside) const {
        std::ofstream(configuration) << "<HVConfiguration>" << inside << "</HVConfiguration>";
    }

    /// What the reply to a reload says: "done", or why not.
    std::string reload(int moduleId = HVB::MODULE_SENTREL) {
        HVB::CommandData command(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
        command.writePayload(moduleId);
        return answerTo(command);
    }
    /// As reload, with a text in the module id's place.
    std::string reloadOf(const wchar_t* text) {
        HVB::CommandData command(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
        command.m_bHasPayload = true;
        *command.m_pOutStream << text;
        return answerTo(command);
    }
    std::string answerTo(HVB::CommandData& command) {
        HVB::CommandResult result;
        broker().sendCommand(command, &result, true, static_cast<int>(kPatience.count()));
        EXPECT_TRUE(result.m_bValid);
        std::string reason = "done";
        result.readPayload(reason);
        EXPECT_EQ(result.m_bSucceeded, reason == "done");
        return reason;
    }

    /// Reloads, which must be refused with this reason in the reply and in one line of the log.
    void expectRefused(const std::string& answer, const std::string& reason) {
        EXPECT_EQ(answer, reason);
        EXPECT_EQ(lines("]: reload refused, the configuration in force stays: " + reason + "\n"), 1U) << hvbd->output();
    }

    /// Sends a line of each level. @return which of them were written.
    std::string levelsWritten() {
        const std::string mark = "mark" + std::to_string(++m_marks);
        HubClient caller = client();
        for (int level = 0; level <= 3; ++level) {
            caller.logMessage(level,
                              std::wstring(mark.begin(), mark.end()) + L" level " + std::to_wstring(level) + L".");
        }
        std::string written;
        for (int level = 0; level <= 3; ++level) {
            if (lines(mark + " level " + std::to_string(level) + ".") == 1) {
                written += std::to_string(level);
            }
        }
        return written;
    }

    const std::string configuration = root.hubConfigDirectory() + "/Sentrel/HVConfig.xml";

private:
    int m_marks = 0;
};

} // namespace testing_support
