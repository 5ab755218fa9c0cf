// The exception type of the preference store.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace Sentrel {

/// A failure of the store that has a result code of its own. Nothing here throws it yet; whoever does gets 180006
/// from the setter that it passes.
class PreferencesException : public std::exception {
public:
    explicit PreferencesException(std::string message) : m_message(std::move(message)) {}

    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_message;
};

} // namespace Sentrel
