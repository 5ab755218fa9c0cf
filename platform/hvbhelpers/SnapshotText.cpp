#include "platform/hvbhelpers/SnapshotText.h"

#include "platform/hvbhelpers/HubProtocol.h"

#include <cerrno>
#include <cstdint>
#include <string_view>

namespace HVB::bus {
namespace {

void checkReading(int result) {
    if (result <= 0) {
        throw HVBException(-EBADMSG, "the message holds no text of settings");
    }
}

MessagePtr requestOf(sd_bus& bus, const char* member, bool isFresh) {
    MessagePtr request = newCall(bus, kHubName, kHubPath, kHubInterface, member);
    if (member == std::string_view(kSettingsMember)) {
        check(sd_bus_message_append(request.get(), kSettingsSignature, isFresh ? 1 : 0), "cannot ask for the settings");
    }
    return request;
}

std::string settingsIn(sd_bus_message& reply) {
    std::uint64_t generation = 0;
    if (sd_bus_message_has_signature(&reply, kSettingsReplySignature) <= 0 ||
        sd_bus_message_read(&reply, "t", &generation) <= 0) {
        throw HVBException(-EBADMSG, "the hub's answer holds no settings");
    }
    return SnapshotText::arrived(reply).text();
}

} // namespace

SnapshotText SnapshotText::of(std::string text) {
    SnapshotText made;
    if (text.size() > kMaxInlineSettingsBytes) {
        made.m_file = detail::MemoryFile::ofBytes(text, kMaxSettingsBytes);
    } else {
        made.m_text = std::move(text);
    }
    return made;
}

SnapshotText SnapshotText::arrived(sd_bus_message& message) {
    SnapshotText made;
    const char* content = nullptr;
    checkReading(sd_bus_message_peek_type(&message, nullptr, &content));
    if (content == nullptr || (std::string_view(content) != "s" && std::string_view(content) != "h")) {
        checkReading(0);
    }
    const bool isFile = *content == 'h';
    checkReading(sd_bus_message_enter_container(&message, 'v', isFile ? "h" : "s"));
    if (isFile) {
        int fd = -1;
        checkReading(sd_bus_message_read_basic(&message, 'h', &fd));
        made.m_file = detail::MemoryFile::arrived(fd, 1, kMaxSettingsBytes);
    } else {
        const char* text = nullptr;
        checkReading(sd_bus_message_read_basic(&message, 's', &text));
        made.m_text = text;
    }
    check(sd_bus_message_exit_container(&message), "cannot read the text of the settings");
    return made;
}

void SnapshotText::appendTo(sd_bus_message& message) const {
    const int result = m_file != nullptr ? sd_bus_message_append(&message, "v", "h", m_file->fd())
                                         : sd_bus_message_append(&message, "v", "s", m_text.c_str());
    check(result, "cannot send the text of the settings");
}

std::string askForSettings(sd_bus& bus, const char* member, bool isFresh, Deadline deadline) {
    const MessagePtr request = requestOf(bus, member, isFresh);
    return settingsIn(*call(bus, *request, deadline));
}

std::string askForSettingsAlone(sd_bus& bus, const char* member, bool isFresh, Deadline deadline, int cancelFd) {
    const MessagePtr request = requestOf(bus, member, isFresh);
    return settingsIn(*callAlone(bus, *request, deadline, cancelFd));
}

} // namespace HVB::bus
