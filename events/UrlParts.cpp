// The parts of a URL, found without any pattern matching.
#include "events/NPlgHelper.h"

#include <cstring>
#include <string_view>

namespace NPlgHelper {

void ExtractBaseDomain(std::string url, std::string& domain, std::string& path) {
    const std::size_t slash = url.find('/');
    if (slash == std::string::npos) {
        domain = url;
        return;
    }
    if (slash == 0 || url[slash - 1] != ':') { // no scheme
        domain = url.substr(0, slash);
        path = slash == 0 ? "" : url.substr(slash + 1);
        return;
    }
    if (slash + 1 >= url.size() || url[slash + 1] != '/') {
        domain.clear();
        path.clear();
        return;
    }
    const std::size_t host = slash + 2;
    const std::size_t hostEnd = url.find('/', host);
    domain = url.substr(host, hostEnd == std::string::npos ? hostEnd : hostEnd - host);
    path = hostEnd == std::string::npos ? "" : url.substr(hostEnd + 1);
}

bool GetWhitelistURLPosition(const char* url, const char** begin, const char** end, const char* token) {
    constexpr std::string_view command = "about:blank?command=whitelist&token=";
    constexpr std::string_view parameter = "&whitelisturl=";
    constexpr std::string_view redirect = "&redirectURL=";
    if (url == nullptr || begin == nullptr || end == nullptr || token == nullptr) {
        return false;
    }
    *begin = nullptr;
    *end = nullptr;
    std::string_view rest(url);
    for (const std::string_view expected : {command, std::string_view(token), parameter}) {
        if (!rest.starts_with(expected)) {
            return false;
        }
        rest.remove_prefix(expected.size());
    }
    *begin = rest.data();
    const std::size_t last = rest.rfind('&');
    const bool redirects = last != std::string_view::npos && rest.substr(last).starts_with(redirect);
    *end = rest.data() + (redirects ? last : rest.size());
    return true;
}

} // namespace NPlgHelper
