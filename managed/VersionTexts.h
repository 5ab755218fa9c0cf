// The version of this installation, as the hub's configuration of the module gives it.
#pragma once

namespace Sentrel {

/// Room for each of these texts with its terminator; a longer one is cut.
inline constexpr unsigned long kVersionTextCharacters = 100;

/// " version.build", with what could be read. Never null.
/// @return a new array that the caller deletes.
/// @throws LibXmlError when the file cannot be opened. Threads: any.
wchar_t* getVersionString();

/// The patch level, and the hotfix level. A single blank in the file stands for none.
/// @return a new array that the caller deletes, or null when there is none or it cannot be read.
/// @throws LibXmlError when the file cannot be opened. Threads: any.
wchar_t* getPatchVersion();
wchar_t* getHFVersion();

} // namespace Sentrel
