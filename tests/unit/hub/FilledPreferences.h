// A snapshot in which no member can be taken for another.
#pragma once

#include "hub/STPreferences.h"

#include <limits>
#include <utility>

namespace testing_support {

/// A value in each member that is not its default, and no two numbers alike.
inline Sentrel::STPreferences filledPreferences() {
    Sentrel::STPreferences preferences;
    preferences.m_bEnable = false;
    preferences.m_bSafeSearch = true;
    preferences.m_redSiteAction = 21;
    preferences.m_yellowSiteAction = -22;
    preferences.m_unratedSiteAction = std::numeric_limits<std::int32_t>::max();
    preferences.m_prefType = Sentrel::ST_ALLOW_BLOCK_LIST;
    preferences.m_bIndividual = true;
    preferences.m_bCategoryBlocking = true;
    preferences.m_bAllowOverBlock = true;
    preferences.m_unverifiedAction = std::numeric_limits<std::int32_t>::min();
    preferences.m_categoryBlockDetails = {{"gambling", 1}, {"", 9}};
    for (const auto& [url, action] :
         {std::pair("b.example", 0), std::pair("a.example", 1), std::pair("b.example", 7)}) {
        preferences.setAllowBlockDetails({{url, action}});
    }
    return preferences;
}

} // namespace testing_support
