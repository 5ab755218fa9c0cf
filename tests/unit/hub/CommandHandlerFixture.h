// The command handlers between two doubles: the controller and the hub record what is asked of them.
#pragma once

#include "daemon/Trace.h"
#include "hub/VXCommandImpl.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/FlowLines.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/support/RecordingController.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testing_support {

class ACommandHandler : public testing::Test {
protected:
    /// Delivers a command as the broker does. @return what the handler returned.
    bool deliver(int id) {
        HVB::CommandData command(id, 7, true);
        return deliver(command);
    }
    template <class Value>
    bool deliver(int id, const Value& value) {
        HVB::CommandData command(id, 7, true);
        command.writePayload(value);
        return deliverText(id, command.m_pOutStream->str());
    }
    /// An archive whose header is right and whose content is not.
    bool deliverBehindTheHeader(int id, const std::wstring& content) {
        return deliverText(id, HVB::CommandData(id, 7, true).m_pOutStream->str() + content);
    }
    bool deliverText(int id, const std::wstring& text) {
        HVB::CommandData command(id, 7, true);
        testing_support::deliverText(command, text);
        return deliver(command);
    }
    bool deliver(HVB::CommandData& command) {
        command.m_token = 0x123456789abcdef0;
        command.m_sourceId = 4;
        command.m_sequence = 99;
        return handler.handleCommand(command);
    }

    const SentReply& reply() const {
        EXPECT_EQ(hub.replies.size(), 1u);
        return hub.replies.front();
    }
    int code() const {
        EXPECT_TRUE(reply().succeeded);
        EXPECT_TRUE(reply().valid);
        return reply().payload<int>();
    }

    /// The lines on stCmdFlow, each with the level that it needs; @p act is run once for each level.
    template <class Act>
    Lines leveled(Act act) {
        return leveledLines(stCmdFlowvalue, [&] {
            hub.forget();
            store.calls.clear();
            act();
        });
    }

    Recording& hub = Recording::instance();
    PreferenceRecording& store = PreferenceRecording::instance();
    Sentrel::VXCommandImpl handler;
};

} // namespace testing_support
