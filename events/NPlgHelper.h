// The rules that the daemon shares with the browser side: what happens to a URL, how its parts are named, and small
// questions about the machine.
#pragma once

#include "base/ClassComp.h"
#include "events/STEventData.h"

#include <array>
#include <map>
#include <string>

/// Free functions; none reports an error except by its result.
/// Threads: any, unless a function says otherwise. Owner: none.
namespace NPlgHelper {

/// Action for each rating name and for "PHISHING" and "RPXUNREACHABLE"; the values are "ALLOW", "WARN" and "BLOCK".
/// Reading goes through the subscript operator, so a key that is missing is added with an empty value.
using RateActionMap = std::map<std::string, std::string>;

/// Decides what happens to a URL and writes the action field: 1 allow, 2 warn, 3 block.
void GetURLAction(STEventData& event, RateActionMap& rateAction);

/// The map as a text for a browser script: ({"RED":"…",…,"RPXUNREACHABLE":"…"}), six entries in a fixed order.
/// Values are not escaped.
std::string SerializeRate_Action(RateActionMap& rateAction);

/// The name of an action code; any unknown code allows.
std::string GetActionString(int action);

/// The name of a list entry's action, 0 allow and 1 block; any unknown code blocks, the other way on purpose.
std::string GetAllowBlockActionString(int action);

/// The name of a rating on the risk scale.
std::string GetRatingStr(int rating);

/// Splits @p url into its whole host part and what follows the slash behind it. Without any slash @p path is left
/// as it is. Nothing is decoded or lower-cased; a port or a query stays where it falls.
void ExtractBaseDomain(std::string url, std::string& domain, std::string& path);

/// Finds the URL in a browser's whitelist request, "about:blank?command=whitelist&token=" + token + "&whitelisturl=" +
/// url + "&redirectURL=" + url. Only the last "&redirectURL=" ends it.
/// @return false, with @p begin and @p end null, when the text is not such a request; false with both untouched when
///         any pointer is null.
bool GetWhitelistURLPosition(const char* url, const char** begin, const char** end, const char* token);

/// The user at the console; empty when there is none. Threads: the event server's.
std::string GetCurrentUser();

/// Whether the browser side runs in Safari. A plain flag.
void SetIsSafari(bool isSafari);
bool IsSafari();

/// Does nothing; the browser side calls it.
void StartVexorinApp(const char* argument);

/// Four letters between A and P and a terminator, for one comparison in GetWhitelistURLPosition. It has no strength
/// beyond that. Threads: one at a time, it seeds the process's random(3). Owner: the maker.
class CToken {
public:
    CToken();
    const char* text() const { return m_text.data(); }

private:
    std::array<char, 5> m_text{};
};

} // namespace NPlgHelper
