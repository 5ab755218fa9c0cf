#include "events/NPlgHelper.h"

#include "platform/consoleuser/ConsoleUser.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace NPlgHelper {
namespace {

constexpr int kAllow = 1;
constexpr int kWarn = 2;
constexpr int kBlock = 3;

bool s_bSafari = false;

int actionOfName(const std::string& name) {
    if (name == "BLOCK") {
        return kBlock;
    }
    return name == "WARN" ? kWarn : kAllow;
}

/// The two conditions can only block; a warning in their values has no effect.
int decide(const STEventData& event, RateActionMap& rateAction) {
    if (event.inAllowBlockList == 1) {
        return event.blockedInAllowBlockList == 1 ? kBlock : kAllow;
    }
    if (event.isRpxReachable == 0 && rateAction["RPXUNREACHABLE"] == "BLOCK") {
        return kBlock;
    }
    if (event.blockedInCategory == 1) {
        return kBlock;
    }
    if (event.isPhishing == 1 && rateAction["PHISHING"] == "BLOCK") {
        return kBlock;
    }
    return actionOfName(rateAction[GetRatingStr(event.urlRating)]);
}

} // namespace

void GetURLAction(STEventData& event, RateActionMap& rateAction) {
    event.action = decide(event, rateAction);
}

std::string SerializeRate_Action(RateActionMap& rateAction) {
    std::string text = "({";
    const char* separator = "";
    for (const char* key : {"RED", "YELLOW", "UNRATED", "UNVERIFIED", "PHISHING", "RPXUNREACHABLE"}) {
        text += separator;
        text.append("\"").append(key).append("\":\"").append(rateAction[key]).append("\"");
        separator = ",";
    }
    return text + "})";
}

std::string GetActionString(int action) {
    switch (action) {
    case kBlock:
        return "BLOCK";
    case kWarn:
        return "WARN";
    default:
        return "ALLOW";
    }
}

std::string GetAllowBlockActionString(int action) {
    return action == 0 ? "ALLOW" : "BLOCK";
}

std::string GetRatingStr(int rating) {
    constexpr int noRating = -100;
    if (rating == noRating) {
        return "UNRATED";
    }
    if (rating < 15) {
        return "MINIMAL_RISK";
    }
    if (rating == 15) {
        return "UNVERIFIED";
    }
    if (rating < 30) {
        return "UNRATED";
    }
    return rating < 50 ? "YELLOW" : "RED";
}

std::string GetCurrentUser() {
    try {
        uid_t uid = 0;
        gid_t gid = 0;
        const std::unique_ptr<const ConsoleUserName, decltype(&CFRelease)> name(
            SCDynamicStoreCopyConsoleUser(nullptr, &uid, &gid), &CFRelease);
        if (name == nullptr) {
            return {};
        }
        char buffer[256] = "";
        static_cast<void>(CFStringGetCString(name.get(), buffer, sizeof buffer, kCFStringEncodingUTF8)); // else empty
        return buffer;
    } catch (...) {
        return {};
    }
}

void SetIsSafari(bool isSafari) {
    s_bSafari = isSafari;
}

bool IsSafari() {
    return s_bSafari;
}

void StartVexorinApp(const char* /*argument*/) {}

CToken::CToken() {
    constexpr unsigned bitsOfLetter = 4;
    constexpr std::uint32_t letterMask = 0xF;
    srandom(static_cast<unsigned>(std::time(nullptr)));
    const auto value = static_cast<std::uint32_t>(random());
    for (std::size_t letter = 0; letter + 1 < m_text.size(); ++letter) {
        m_text[letter] = static_cast<char>('P' - ((value >> (bitsOfLetter * letter)) & letterMask));
    }
}

} // namespace NPlgHelper
