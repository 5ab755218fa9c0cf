// Feeds a URL to the rules that look at one: its parts, the whitelist request, and whether it is reported.
#include "events/EventReporter.h"
#include "events/NPlgHelper.h"
#include "fuzz/Require.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace {

using fuzz::require;

void checkParts(const std::string& url) {
    std::string domain = "before";
    std::string path = "before";
    NPlgHelper::ExtractBaseDomain(url, domain, path);
    if (url.find('/') == std::string::npos) {
        require(domain == url && path == "before");
        return;
    }
    require(domain.find('/') == std::string::npos);
    require(url.find(domain) != std::string::npos && url.ends_with(path));
}

void checkWhitelistRequest(const std::string& url, const std::string& token) {
    const char* begin = url.c_str();
    const char* end = begin;
    if (!NPlgHelper::GetWhitelistURLPosition(url.c_str(), &begin, &end, token.c_str())) {
        require(begin == nullptr && end == nullptr);
        return;
    }
    require(url.c_str() < begin && begin <= end && end <= url.c_str() + std::strlen(url.c_str()));
    require(*end == '\0' || std::strncmp(end, "&redirectURL=", 13) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkParts(text);
    const std::size_t cut = text.find('\n'); // a token in front, for requests that carry it
    const std::string token = cut == std::string::npos ? "" : text.substr(0, cut);
    checkWhitelistRequest(cut == std::string::npos ? text : text.substr(cut + 1), token);
    const bool valid = EventReporter::getInstance()->isValidUrl(text);
    require(!valid || text.size() >= 8);
    return 0;
}
