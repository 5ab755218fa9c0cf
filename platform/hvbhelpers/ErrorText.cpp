#include "platform/hvbhelpers/ErrorText.h"

#include "hub/Exceptions.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <syslog.h>

#include <exception>
#include <string_view>

namespace HVB::detail {
namespace {

std::string printable(std::string_view text) {
    std::string result(text.substr(0, kMaxErrorText));
    for (char& c : result) {
        if (c < ' ' || c > '~') {
            c = '?';
        }
    }
    return result;
}

} // namespace

std::string currentExceptionText() noexcept {
    try {
        try {
            throw;
        } catch (const HVBException& exception) {
            return printable(exception.message());
        } catch (const Sentrel::VXException& exception) {
            return printable(exception.message());
        } catch (const std::exception& exception) {
            return printable(exception.what());
        } catch (...) {
            return "an exception of unknown type";
        }
    } catch (...) {
        return {};
    }
}

std::int32_t currentExceptionCode() noexcept {
    try {
        throw;
    } catch (const HVBException& exception) {
        return exception.code();
    } catch (const Sentrel::VXException& exception) {
        return exception.code();
    } catch (...) {
        return 0;
    }
}

void traceComm(std::string_view what, std::string_view why) noexcept {
    if (hvCommFlowvalue >= 1) {
        syslog(LOG_WARNING, "hub client: %.*s%.*s", static_cast<int>(what.size()), what.data(),
               static_cast<int>(why.size()), why.data());
    }
}

} // namespace HVB::detail
