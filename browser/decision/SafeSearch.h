// Safe search: the parameter by which a search engine leaves out what is not for everybody.
#pragma once

#include "browser/decision/WebUrl.h"

#include <optional>
#include <string>

namespace Sentrel::browsing {

/// The address of the same search with the engine's own parameter for safe search. None when @p url is no search of an
/// engine that is known here, or has the parameter already.
std::optional<std::string> withSafeSearch(const WebUrl& url);

} // namespace Sentrel::browsing
