// Small questions about the desktop's settings.
#pragma once

#include <string>

namespace MacUtils {

/// Threads: any. Owner: none, it is only a scope.
class CFHelper {
public:
    /// The user interface's language as "de" or "pt-BR", from the process's locale; "en" when that names none.
    static std::wstring GetLanguage();
};

} // namespace MacUtils
