// The names of the settings file's single values, without the NUL that the file puts behind each.
#pragma once

#include <array>

namespace Sentrel::settings {

/// Rows that hold a number of four bytes. The proxy's are not among them.
inline constexpr std::array kNumberKeys{
    "Enabled",
    "SSOn",
    "RedSiteAction",
    "YellowSiteAction",
    "UnverifiedSiteAction",
    "GenPolicyUnverifiedAction",
    "CAT_Enabled",
    "ALLOW_OVER_Block",
    "GenPolicyBlockPhishingAction",
    "GenPolicyRPXUnReachableAction",
    "PrivateIPRangeChecksum",
    "AllowBlockListChecksum",
    "CategoryBlockListChecksum",
    "GenPolicyLogGreenSiteAction",
    "GenPolicyLogAllowSiteAction",
    "UNCAT_Block",
    "Enabled_Debug_Log",
};

inline constexpr const char* kProxyHostKey = "RPXProxyHost";
inline constexpr const char* kProxyUserKey = "HttpAuthUname";
inline constexpr const char* kProxyPasswordKey = "HttpAuthPass";
inline constexpr const char* kProxyPortKey = "RPXProxyPort";
inline constexpr const char* kProxyTypeKey = "RPXProxyType";
inline constexpr const char* kProxyAuthenticationKey = "EnableHttpAuth";

} // namespace Sentrel::settings
