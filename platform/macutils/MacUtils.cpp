#include "platform/macutils/MacUtils.h"

#include <cstdlib>
#include <string_view>

namespace MacUtils {
namespace {

/// The first of the variables by which locale(7) chooses the language of messages that is set.
std::string_view localeName() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            return value;
        }
    }
    return {};
}

bool isLanguage(std::string_view name) {
    constexpr std::size_t longest = 16;
    return !name.empty() && name.size() <= longest && name != "C" && name != "POSIX" &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
               std::string_view::npos;
}

} // namespace

std::wstring CFHelper::GetLanguage() {
    std::string_view name = localeName();
    name = name.substr(0, name.find_first_of(".@"));
    if (!isLanguage(name)) {
        return L"en";
    }
    std::wstring language(name.begin(), name.end());
    if (const std::size_t territory = language.find(L'_'); territory != std::wstring::npos) {
        language[territory] = L'-';
    }
    return language;
}

} // namespace MacUtils
