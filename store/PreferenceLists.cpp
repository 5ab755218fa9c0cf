// The lists are replaced whole: the table is emptied, written row by row and read back, each statement committed by
// itself. What was read back is the new list, so that memory shows what the file holds, also after a write that failed.
// When two replacements run at the same time, their rows mix in the file. Reading back and taking over is one step, so
// memory ends with the later reading, which saw all rows.
//
// No transaction is made of it: readers of the file would wait for as long as the list takes to be written. A daemon
// that is killed meanwhile leaves whole rows. The lock of the lists in memory is never held while the file is used.
#include "base/TextConversion.h"
#include "daemon/Trace.h"
#include "store/PreferenceFile.h"
#include "store/STPreferenceController.h"

#include <boost/thread/lock_guard.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace Sentrel {
namespace {

constexpr const char* kBlanks = " \t";

/// The trace lines of a setter that cannot open the settings file. Operators search for them.
struct OpeningLines {
    const char* noPath;
    const char* noHandle;
};

constexpr OpeningLines kCategoriesOfPolicy{"setCategoryBlockDetails - Error while getting user DB Path",
                                           "setCategoryBlockDetails - Error while getting DB handle"};
constexpr OpeningLines kCategoriesOfClient{"setCategoryBlockDetails 2 - Error while getting user DB Path",
                                           "setCategoryBlockDetails 2 - Error while getting DB handle"};
constexpr OpeningLines kUrlsOfPolicy{"setAllowBlockDetails - Error while getting user DB Path",
                                     "setAllowBlockDetails - Error while getting DB handle"};
constexpr OpeningLines kUrlsOfClient{"setAllowBlockDetails 2 - Error while getting user DB Path",
                                     "setAllowBlockDetails 2 - Error while getting DB handle"};
constexpr OpeningLines kRanges{"setPrivateIPRange - Error while getting user DB Path",
                               "setPrivateIPRange - Error while getting DB handle"};

/// Opens the settings file and hands it to @p replace, which gives the setter's result.
template <class Replace>
int replaceList(const char* setter, const OpeningLines& lines, Replace replace) {
    return detail::guarded(setter, [&]() -> int {
        const auto report = [](const char* line) { ST_TRACE(configFlow, 1, L"STPreferenceController::%s\n", line); };
        const auto settings = detail::openSettings([&] { report(lines.noPath); }, [&] { report(lines.noHandle); });
        return settings != nullptr ? replace(*settings) : static_cast<int>(ST_ERROR_DATABASE);
    });
}

/// The narrow form of a text from policy. None when it does not fit into the 1,023 bytes that every reader of the file
/// has for it: half a URL would be another URL.
std::optional<std::string> narrowed(const char* setter, const std::wstring& wide) {
    constexpr std::size_t bufferBytes = 1024;
    constexpr std::size_t bytesPerCharacter = 6;
    if (wide.size() < bufferBytes) { // each character takes a byte at the least
        const std::size_t declared = bytesPerCharacter * wide.size() + 1;
        std::vector<char> buffer(std::max(bufferBytes, declared), '\0');
        int size = static_cast<int>(declared);
        widechar2charstr(wide.c_str(), buffer.data(), &size);
        std::string text(buffer.data());
        if (text.size() < bufferBytes) {
            return trim(text, kBlanks);
        }
    }
    ST_TRACE(configFlow, 1, L"STPreferenceController::%s - left out a text that is too long\n", setter);
    return std::nullopt;
}

/// How many entries of a policy's parallel arrays are complete.
std::size_t wholeEntries(const char* setter, std::size_t declared, std::size_t names, std::size_t actions) {
    const std::size_t whole = std::min({declared, names, actions});
    if (whole != declared) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::%s - only %lu of %lu entries are whole\n", setter, whole,
                 declared);
    }
    return whole;
}

int digitOf(wchar_t character) {
    return character >= L'0' && character <= L'9' ? static_cast<int>(character - L'0') : 0;
}

/// Every entry of a client's list goes to standard output, also one that is not stored.
void printEntry(const std::string& name, int action) {
    detail::printLine(trace::printable(name) + (action == 0 ? " Allow" : " Block"));
}

void storeCategory(CVXDBSettings& settings, const std::string& name, int action) {
    // What cannot be stored is missing when the table is read back.
    static_cast<void>(settings.Set(name.c_str(), name.size(), &action, sizeof action, TABLE_CATEGORY_BLOCKING));
}

} // namespace

std::string trim(const std::string& text, const std::string& characters) {
    const std::size_t first = text.find_first_not_of(characters);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(characters) - first + 1);
}

void STPreferenceController::replaceAllowBlockDetails(AllowBlockDetails details) {
    const boost::lock_guard<boost::mutex> lock(m_listMutex);
    m_allowBlockDetails.swap(details);
}

void STPreferenceController::replaceCategoryBlockDetails(CategoryBlockDetails details) {
    const boost::lock_guard<boost::mutex> lock(m_listMutex);
    m_categoryBlockDetails.swap(details);
}

/// The stored action does not read back as a number; only the presence of the name counts.
void STPreferenceController::takeCategoryRows(const CVXDBSettings::Rows& rows) {
    constexpr int blocked = 1;
    CategoryBlockDetails details;
    for (const auto& [name, action] : rows) {
        ST_TRACE(configFlow, 1, L"Category Name is %s and action is %d\n", trace::printable(name).c_str(), blocked);
        details.emplace(name, blocked);
    }
    replaceCategoryBlockDetails(std::move(details));
}

/// @param form which of the two setters reads; its number is in the trace lines.
void STPreferenceController::readBackCategories(CVXDBSettings& settings, int form) {
    const boost::lock_guard<boost::mutex> readBack(m_readBackMutex);
    CVXDBSettings::Rows rows;
    if (!settings.GetAllRows(TABLE_CATEGORY_BLOCKING, rows, false)) {
        ST_TRACE(
            configFlow, 1,
            L"STPreferenceController::setCategoryBlockDetails %d - no data found in DB to update member variable\n",
            form);
        return;
    }
    ST_TRACE(configFlow, 1,
             L"STPreferenceController::setCategoryBlockDetails %d updating member variable with data in DB\n", form);
    takeCategoryRows(rows);
}

void STPreferenceController::emptyCategories(CVXDBSettings& settings) {
    static_cast<void>(settings.Delete(TABLE_CATEGORY_BLOCKING)); // rows that stay are read back
    replaceCategoryBlockDetails({});
}

int STPreferenceController::setCategoryBlockDetails(int enabled, int count, std::vector<wchar_t>& actions,
                                                    std::vector<std::wstring>& names, int nonCategoryBlocked) {
    constexpr const char* setter = "setCategoryBlockDetails";
    ST_TRACE(configFlow, 2, L"STPreferenceController::setCategoryBlockDetails - entered with value %d\n", enabled);
    return replaceList(setter, kCategoriesOfPolicy, [&](CVXDBSettings& settings) -> int {
        if (static_cast<int>(m_bCategoryBlocking.load()) != enabled) {
            static_cast<void>(detail::storeNumber(settings, "CAT_Enabled", enabled));
            m_bCategoryBlocking = enabled != 0;
        }
        if (enabled == 0) {
            return ST_ERROR_NONE;
        }
        storeUncategorised(settings, nonCategoryBlocked);
        emptyCategories(settings);
        const std::size_t whole =
            wholeEntries(setter, static_cast<std::size_t>(std::max(count, 0)), names.size(), actions.size());
        for (std::size_t at = 0; at < whole; ++at) {
            const int action = digitOf(actions[at]);
            const auto name = action != 0 ? narrowed(setter, names[at]) : std::nullopt;
            if (name) {
                storeCategory(settings, *name, action);
            }
        }
        readBackCategories(settings, 1);
        return ST_ERROR_NONE;
    });
}

void STPreferenceController::storeUncategorised(CVXDBSettings& settings, int blocked) {
    constexpr const char* key = "UNCAT_Block";
    static_cast<void>(detail::storeNumber(settings, key, blocked));
    int stored = 0;
    const bool isBlocked = detail::readNumber(settings, key, stored) && stored != 0;
    ST_TRACE(configFlow, 2, L"STPreferenceController::setCategoryBlockDetails - isNonCategoryBlocked %d\n",
             isBlocked ? 1 : 0);
}

int STPreferenceController::setCategoryBlockDetails(std::map<std::string, int>& categories) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::setCategoryBlockDetails 2 entered\n");
    return replaceList("setCategoryBlockDetails", kCategoriesOfClient, [&](CVXDBSettings& settings) -> int {
        if (!m_bCategoryBlocking) {
            return ST_ERROR_NONE;
        }
        emptyCategories(settings);
        for (const auto& [name, action] : categories) {
            printEntry(name, action);
            if (action != 0) {
                storeCategory(settings, name, action);
            }
        }
        readBackCategories(settings, 2);
        return ST_ERROR_NONE;
    });
}

int STPreferenceController::getCategoryBlockDetails(std::map<std::string, int>& out) {
    ST_TRACE(configFlow, 1, L"STPreferenceController::getCategoryBlockDetails entered\n");
    const boost::lock_guard<boost::mutex> lock(m_listMutex);
    out = m_categoryBlockDetails;
    return ST_ERROR_NONE;
}

bool STPreferenceController::readBackUrls(CVXDBSettings& settings) {
    const boost::lock_guard<boost::mutex> readBack(m_readBackMutex);
    AllowBlockDetails stored;
    if (!settings.GetAllRows(TABLE_ALLOW_BLOCK, stored, m_bAllowOverBlock)) {
        return false;
    }
    replaceAllowBlockDetails(std::move(stored));
    return true;
}

int STPreferenceController::setAllowBlockDetails(int precedence, std::vector<std::wstring>& urls,
                                                 std::vector<int>& actions) {
    constexpr const char* setter = "setAllowBlockDetails";
    ST_TRACE(configFlow, 2, L"STPreferenceController::setAllowBlockDetails 1 - entered\n");
    return replaceList(setter, kUrlsOfPolicy, [&](CVXDBSettings& settings) -> int {
        static_cast<void>(detail::storeNumber(settings, "ALLOW_OVER_Block", precedence));
        m_bAllowOverBlock = precedence != 0;
        static_cast<void>(settings.Delete(TABLE_ALLOW_BLOCK)); // rows that stay are read back
        replaceAllowBlockDetails({});
        const std::size_t whole = wholeEntries(setter, urls.size(), urls.size(), actions.size());
        for (std::size_t at = 0; at < whole; ++at) {
            if (const auto url = narrowed(setter, urls[at])) {
                static_cast<void>(settings.Set(*url, actions[at], TABLE_ALLOW_BLOCK));
            }
        }
        static_cast<void>(readBackUrls(settings)); // without a read-back the list stays empty
        return ST_ERROR_NONE;
    });
}

int STPreferenceController::setAllowBlockDetails(AllowBlockDetails& details) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::setAllowBlockDetails 2 - entered\n");
    return replaceList("setAllowBlockDetails", kUrlsOfClient, [&](CVXDBSettings& settings) -> int {
        static_cast<void>(settings.Delete(TABLE_ALLOW_BLOCK)); // rows that stay are read back
        replaceAllowBlockDetails({});
        for (const auto& [url, action] : details) {
            printEntry(url, action);
            ST_TRACE(configFlow, 1, L"STPreferenceController::setAllowBlockDetails 2 URL Name is %s and action is %d\n",
                     trace::printable(url).c_str(), action);
            static_cast<void>(settings.Set(url, action, TABLE_ALLOW_BLOCK));
        }
        if (readBackUrls(settings)) {
            ST_TRACE(configFlow, 1, L"STPreferenceController::setAllowBlockDetails 2 - Updating member variable\n");
        }
        return ST_ERROR_NONE;
    });
}

int STPreferenceController::getAllowBlockDetails(AllowBlockDetails& out) {
    const boost::lock_guard<boost::mutex> lock(m_listMutex);
    out = m_allowBlockDetails;
    return ST_ERROR_NONE;
}

int STPreferenceController::setPrivateIPRange(std::list<std::string> ranges) {
    ST_TRACE(configFlow, 5, L"STPreferenceController::setPrivateIPRange - entered\n");
    return replaceList("setPrivateIPRange", kRanges, [&](CVXDBSettings& settings) -> int {
        static_cast<void>(settings.Delete(TABLE_PRIVATE_IP_RANGE));
        for (const std::string& range : ranges) {
            if (range.find(':') != std::string::npos) {
                ST_TRACE(configFlow, 1, L"STPreferenceController::setPrivateIPRange ignoring IPV6 private range.\n");
                continue;
            }
            static_cast<void>(settings.Set(range, TABLE_PRIVATE_IP_RANGE));
        }
        return ST_ERROR_NONE;
    });
}

} // namespace Sentrel
