// What the extension says: its messages, read from JSON. docs/browser-host.md has them.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace Sentrel::host {

inline constexpr std::int64_t kProtocolVersion = 1;
inline constexpr std::uint64_t kMaxMessageId = (std::uint64_t{1} << 53U) - 1; ///< what a number of JavaScript holds

/// Threads of all of these: plain values. Owner: the holder.
struct Hello {
    std::string browser;
    bool wantsRules = false;
    bool wantsRatings = false;
};
struct DecideRequest {
    std::uint64_t id = 0;
    std::string url;
};
/// What the user answered to a warning.
enum class WarningAnswer { None, WentOn, TurnedBack };
struct ReportRequest {
    std::uint64_t id = 0;
    std::string url;
    WarningAnswer answer = WarningAnswer::None;
};
/// Asks for access to a page, or only what came of asking.
struct AccessMessage {
    std::uint64_t id = 0;
    std::string url;
    std::string reason;
    bool isAsking = false;
};
using HostRequest = std::variant<Hello, DecideRequest, ReportRequest, AccessMessage>;

/// A message that is answered with an error. Its words are for the extension's author.
class RequestError : public std::runtime_error {
public:
    RequestError(const char* code, const std::string& text, std::optional<std::uint64_t> id = {})
        : std::runtime_error(text), m_code(code), m_id(id) {}

    const char* code() const { return m_code; } ///< "order", "type", "member" or "version"
    const std::optional<std::uint64_t>& id() const { return m_id; }

private:
    const char* m_code;
    std::optional<std::uint64_t> m_id; ///< of the message, when it had one
};

/// Reads a message. Members that are not known are passed over.
/// @throws FramingError when it is no JSON object, RequestError for anything else that is wrong.
HostRequest readRequest(std::string_view message);

} // namespace Sentrel::host
