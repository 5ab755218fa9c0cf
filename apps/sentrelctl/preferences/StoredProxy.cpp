#include "apps/sentrelctl/preferences/StoredProxy.h"

#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "base/PrintableText.h"

#include <cstring>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

/// A text is stored without a terminator.
std::optional<std::string> textOf(const std::optional<std::string>& bytes) {
    return !bytes || bytes->empty() || *bytes == kNoProxyText ? std::nullopt : bytes;
}

/// A number is stored as the four bytes of an int.
std::optional<std::int32_t> numberOf(const std::optional<std::string>& bytes) {
    std::int32_t number = 0;
    if (!bytes || bytes->size() != sizeof number) {
        return std::nullopt;
    }
    std::memcpy(&number, bytes->data(), sizeof number);
    return number;
}

std::string shown(const std::optional<std::string>& text) {
    return text ? printable(*text) : "none";
}

std::string shown(std::optional<std::int32_t> number) {
    return number ? std::to_string(*number) : "none";
}

template <class Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json textOrNull(const std::optional<std::string>& text) {
    return text ? Json(validUtf8(*text)) : Json(nullptr);
}

} // namespace

StoredProxy readStoredProxy(const std::string& path) {
    const auto values = readSettings(
        path, {"RPXProxyHost", "HttpAuthUname", "HttpAuthPass", "RPXProxyPort", "RPXProxyType", "EnableHttpAuth"},
        "cannot read the proxy settings");
    return {textOf(values.at(0)),   textOf(values.at(1)),   textOf(values.at(2)),
            numberOf(values.at(3)), numberOf(values.at(4)), numberOf(values.at(5))};
}

StoredProxy proxyIn(const settings::SettingsSnapshot& stored) {
    const settings::ProxySettings& proxy = stored.proxy;
    // Without a user the text that stands for none is stored for the password too, and not served.
    const bool isHidden = proxy.hasPassword && !proxy.cipheredPassword && textOf(proxy.user);
    return {textOf(proxy.host), textOf(proxy.user), isHidden ? std::optional<std::string>("") : proxy.cipheredPassword,
            proxy.port,         proxy.type,         proxy.authentication};
}

StoredProxy storedFormOf(const proxySettings& settings) {
    return {textOf(settings.host), textOf(settings.uname), textOf(settings.pass),
            settings.port,         settings.type,          settings.httpAuth};
}

std::string proxyText(const StoredProxy& proxy, const Palette& palette) {
    const std::string authentication = !proxy.httpAuth ? "none" : *proxy.httpAuth != 0 ? "on" : "off";
    return rowText("host", shown(proxy.host), palette) + rowText("port", shown(proxy.port), palette) +
           rowText("type", shown(proxy.type), palette) + rowText("authentication", authentication, palette) +
           rowText("user", shown(proxy.user), palette) +
           rowText("password", proxy.password ? "set" : "not set", palette);
}

Json proxyJson(const StoredProxy& proxy) {
    return Json{{"host", textOrNull(proxy.host)},
                {"port", orNull(proxy.port)},
                {"type", orNull(proxy.type)},
                {"authentication", proxy.httpAuth ? Json(*proxy.httpAuth != 0) : Json(nullptr)},
                {"user", textOrNull(proxy.user)},
                {"password_set", proxy.password.has_value()}};
}

} // namespace Sentrel::ctl
