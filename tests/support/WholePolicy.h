// A sample of a policy, as the management server sends it.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace testing_support {

/// A policy that sets something in each of its parts.
/// @param isOn whether it wants protection.
/// @param blockedSite the site that it blocks.
inline nlohmann::json wholePolicy(int version, const std::string& id, bool isOn, const std::string& blockedSite) {
    return {
        {"version", version},
        {"id", id},
        {"features",
         {{"KPF_General",
           {{"Sentrel", {{"bEnableSentrel", isOn}}},
            {"ActionEnforcement", {{"bPhishingBlock", 0}, {"uiAgumentIPCount", 1}, {"szAgumentIP_0", "10.0.0.0/8"}}}}},
          {"KPF_ContentFiltering",
           {{"ContentActions",
             {{"bEnableCategorization", 1},
              {"uiBitCount", 2},
              {"szActionCodes", "11"},
              {"uiContentBitCodes", "al,ga"}}},
            {"RatingActions", {{"uiOverall", 84}}}}},
          {"KPF_BlockAndAllowList",
           {{"BlockAndAllowList",
             {{"uiSiteCount", 2},
              {"bPrecedenceOverProhibitLists", 1},
              {"szSite0", blockedSite},
              {"Action0", 1},
              {"szSite1", "ok.example"},
              {"Action1", 0}}}}}}}};
}

} // namespace testing_support
