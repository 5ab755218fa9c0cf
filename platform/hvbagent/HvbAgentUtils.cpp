#include "platform/hvbagent/AgentDocuments.h"

#include <boost/locale/utf.hpp>

#include <bit>
#include <iterator>

namespace HVBEnterprise {

std::string HvbAgentUtils::wstringToString(const std::wstring& text) {
    namespace utf = boost::locale::utf;
    constexpr utf::code_point replacement = 0xFFFD;
    std::string out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        const auto value = std::bit_cast<utf::code_point>(c);
        utf::utf_traits<char>::encode(utf::is_valid_codepoint(value) ? value : replacement, std::back_inserter(out));
    }
    return out;
}

} // namespace HVBEnterprise
