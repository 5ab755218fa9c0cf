#include "managed/VersionTexts.h"

#include "base/Paths.h"
#include "daemon/Trace.h"
#include "platform/hvbutils/LibXmlWrapper.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <string>

namespace Sentrel {
namespace {

/// A new text of fixed room, decoded in the process's locale, which is UTF-8. What cannot be decoded ends the text.
wchar_t* newText(const std::string& narrow) {
    auto text = std::make_unique<wchar_t[]>(kVersionTextCharacters);
    std::mbstate_t state{};
    const char* from = narrow.c_str();
    std::size_t length = 0;
    while (length + 1 < kVersionTextCharacters && *from != '\0') {
        const std::size_t used =
            std::mbrtowc(&text[length], from, narrow.size() - static_cast<std::size_t>(from - narrow.c_str()), &state);
        if (used == static_cast<std::size_t>(-1) || used == static_cast<std::size_t>(-2)) {
            break; // no text from here on
        }
        from += used;
        ++length;
    }
    text[length] = L'\0';
    return text.release();
}

/// The value under @p xpath as a new text; null for none. @p report traces a value that cannot be fetched.
template <class Traced, class Report>
wchar_t* levelText(const char* xpath, Traced traced, Report report) {
    LibXmlWrapper configuration(paths::moduleConfiguration());
    std::string value;
    try {
        value = configuration.getXPathStringValue(xpath);
    } catch (...) {
        report();
        return nullptr;
    }
    if (value.empty() || value == " ") {
        return nullptr;
    }
    traced(trace::printable(value).c_str());
    return newText(value);
}

} // namespace

wchar_t* getVersionString() {
    LibXmlWrapper configuration(paths::moduleConfiguration());
    std::string build;
    std::string version;
    try {
        build = configuration.getXPathStringValue("/HVConfiguration/BuildNumber");
        ST_TRACE(mgsFlow, 3, L"VXPropertyCollectionImpl::getVersionString - Build Number = %s\n",
                 trace::printable(build).c_str());
        version = configuration.getXPathStringValue("/HVConfiguration/HVVersion");
        ST_TRACE(mgsFlow, 3, L"VXPropertyCollectionImpl::getVersionString - Version = %s\n",
                 trace::printable(version).c_str());
    } catch (...) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPropertyCollectionImpl::getVersionString - Recieved xml exception while fetching build num and "
                 L"version\n");
    }
    return newText(" " + version + "." + build);
}

wchar_t* getPatchVersion() {
    return levelText(
        "/HVConfiguration/PatchVersion",
        [](const char* value) {
            ST_TRACE(mgsFlow, 2, L"VXPropertyCollectionImpl::getPatchVersion - Patch Version = %s\n", value);
        },
        [] { ST_TRACE(mgsFlow, 2, L"getPatchVersion - Recieve xml exception while Patch version\n"); });
}

wchar_t* getHFVersion() {
    return levelText(
        "/HVConfiguration/Hotfixes",
        [](const char* value) {
            ST_TRACE(mgsFlow, 2, L"VXPropertyCollectionImpl::getHFVersion - Hotfixes = %s\n", value);
        },
        [] {
            ST_TRACE(mgsFlow, 2, L"VXPropertyCollectionImpl::getHFVersion - Recieved xml exception while HF version\n");
        });
}

} // namespace Sentrel
