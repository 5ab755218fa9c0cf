// Feeds the browser's side of a conversation to the host, as bytes: frames, then messages. Whatever comes, each message
// has one answer, which is valid UTF-8 and JSON, until one ends the conversation.
#include "browser/host/Framing.h"
#include "browser/host/HostSession.h"
#include "fuzz/Require.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <string_view>

namespace {

using namespace Sentrel;
using fuzz::require;

host::HeldSettings someSettings() {
    settings::SettingsSnapshot snapshot;
    snapshot.state = settings::SnapshotState::Whole;
    snapshot.numbers = {{"SSOn", 1}};
    snapshot.allowBlock = {{"blocked.example", 1}, {"\xFF*.allowed.example/a", 0}, {"*.example", 0}};
    snapshot.privateRanges = {"10.0.0.0/8"};
    return {host::HeldSettings::State::Current, "", std::make_shared<const host::WholeSettings>(snapshot)};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const host::HeldSettings settings = someSettings();
    std::size_t answers = 0;
    host::HostSession session("1", nullptr,
                              {[&answers](const std::string& message) {
                                   require(nlohmann::json::parse(message).is_object());
                                   ++answers;
                               },
                               [](const STEventData& record) -> std::uint64_t {
                                   require(record.url[sizeof record.url - 1] == '\0');
                                   return 0;
                               },
                               [](const host::AccessQuestion& question) {
                                   require(question.url.size() + question.reason.size() <= 500);
                                   return false; // so it is answered at once
                               }});
    session.hold(settings);
    host::FrameReader reader;
    reader.add({reinterpret_cast<const char*>(data), size});
    try {
        for (std::size_t messages = 1; const auto message = reader.next(); ++messages) {
            session.take(*message);
            require(answers == messages);
        }
        const auto owed = session.owedSettings();
        require(!owed || nlohmann::json::parse(*owed).at("type") == "settings");
    } catch (const host::FramingError& refused) {
        require(*refused.what() != '\0');
    }
    return 0;
}
