#include "policy/PolicyValues.h"

#include "base/TextConversion.h"
#include "policy/PolicyLimits.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <vector>

namespace Sentrel::policy {

PolicyNumber readNumber(std::wstring_view text) {
    constexpr wchar_t lastAscii = 0x7F;
    constexpr int decimal = 10;
    const auto end = std::find_if(text.begin(), text.begin() + std::min(text.size(), kMaxNumberCharacters),
                                  [](wchar_t c) { return c <= 0 || c > lastAscii; });
    const std::string looked(text.begin(), end);
    char* behind = nullptr;
    errno = 0;
    const long number = std::strtol(looked.c_str(), &behind, decimal);
    const bool fits =
        errno == 0 && number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    const bool isAll = behind != looked.c_str() && *behind == '\0' && end == text.end();
    return {static_cast<int>(number), fits && isAll};
}

PolicyText readText(std::wstring_view whole) {
    return {std::wstring(whole.substr(0, kMaxTextCharacters)),
            whole.size() > kMaxTextCharacters ? whole[kMaxTextCharacters] : L'\0'};
}

std::optional<std::string> narrowText(const std::wstring& text) {
    if (text.size() > kMaxNarrowBytes) { // each character takes a byte at the least
        return std::nullopt;
    }
    constexpr std::size_t bytesPerCharacter = 6;
    std::vector<char> buffer(bytesPerCharacter * text.size() + 1, '\0');
    int size = static_cast<int>(buffer.size());
    widechar2charstr(text.c_str(), buffer.data(), &size);
    std::string narrow(buffer.data());
    return narrow.size() <= kMaxNarrowBytes ? std::optional(std::move(narrow)) : std::nullopt;
}

} // namespace Sentrel::policy
