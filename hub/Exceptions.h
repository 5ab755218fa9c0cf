// The two exception types that cross the daemon's own layers. Everything else that is thrown comes from a library.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace Sentrel {

/// A failure inside the daemon: a result code and a message for the trace log.
class VXException {
public:
    VXException(std::int32_t code, std::string message) : m_code(code), m_message(std::move(message)) {}

    std::int32_t code() const { return m_code; }
    const std::string& message() const { return m_message; }

private:
    std::int32_t m_code;
    std::string m_message;
};

} // namespace Sentrel

namespace HVB {

/// A failure of the hub client: no hub at the socket, no answer in time, or a refusal by the hub.
/// The code is a negative errno value where the system gave one, otherwise -1.
class HVBException {
public:
    HVBException(std::int32_t code, std::string message) : m_code(code), m_message(std::move(message)) {}

    std::int32_t code() const { return m_code; }
    const std::string& message() const { return m_message; }

private:
    std::int32_t m_code;
    std::string m_message;
};

} // namespace HVB
