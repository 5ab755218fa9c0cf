// The text of a settings snapshot on its way: in the message, or in a file beside it.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/MemoryFile.h"

#include <systemd/sd-bus.h>

#include <string>

namespace HVB::bus {

/// A text of UTF-8 without U+0000 that stands as a variant in a message: a string of up to kMaxInlineSettingsBytes, or
/// the descriptor of a sealed memory file that holds the bytes of a longer one. A copy shares the file. Threads: one at
/// a time. Owner: the holder.
class SnapshotText {
public:
    /// @throws HVBException with -EMSGSIZE beyond kMaxSettingsBytes, or with the system's code when it gives no memory.
    static SnapshotText of(std::string text);
    /// The variant that stands next in @p message. The bytes of a file are not read.
    /// @throws HVBException with -EBADMSG when there is none, or it holds neither a string nor a sealed memory file of
    ///         at most kMaxSettingsBytes.
    static SnapshotText arrived(sd_bus_message& message);

    /// @throws HVBException when the message does not take it.
    void appendTo(sd_bus_message& message) const;

    /// @throws HVBException with -EBADMSG when the file cannot be read.
    std::string text() const { return m_file != nullptr ? m_file->content() : m_text; }

private:
    std::string m_text;
    detail::MemoryFile::Ptr m_file; ///< holds the text when there is one
};

/// Asks the hub for the settings as one text, whose form is docs/formats.md's.
/// @param member kSettingsMember, or kLastWholeSettingsMember.
/// @param isFresh of Settings: whether the file is to be read first, after this was called.
/// @throws HVBException as call does, and with -EBADMSG for another answer.
std::string askForSettings(sd_bus& bus, const char* member, bool isFresh, Deadline deadline);

/// The same with callAlone, for whoever may have to end meanwhile: as soon as @p cancelFd can be read.
std::string askForSettingsAlone(sd_bus& bus, const char* member, bool isFresh, Deadline deadline, int cancelFd);

} // namespace HVB::bus
