#include "tests/unit/policy/PolicyGenerator.h"

#include "policy/PolicyLimits.h"

namespace testing_support {

using Sentrel::policy::kMaxNarrowBytes;
using Sentrel::policy::kMaxTextCharacters;
namespace keys = Sentrel::policy::keys;

HVBEnterprise::SectionsHandle PolicyGenerator::next() {
    m_document = {};
    if (once(8)) {
        putNumber(keys::kEnforce, 1);
    }
    putGeneral();
    putContent();
    putSites();
    return std::move(m_document);
}

/// Where it belongs, as a rule; a key that is read anywhere may be elsewhere, and is missing from there otherwise.
void PolicyGenerator::put(const Key& key, const std::wstring& value, int index) {
    const std::wstring section = Sentrel::policy::wide(key.section);
    const std::wstring name = Sentrel::policy::wide(nameOf(key, index));
    if (once(200) || (key.isReadAnywhere && once(20))) {
        m_document.insert(section, name, value);
    } else {
        m_document.insertForFeature(once(200) ? L"KPF_Other" : Sentrel::policy::wide(key.feature), section, name,
                                    value);
    }
}

std::wstring PolicyGenerator::number(int usual) {
    static const std::vector<std::wstring> odd{L"0",
                                               L"1",
                                               L"2",
                                               L"-1",
                                               L"-5",
                                               L"3",
                                               L"",
                                               L"on",
                                               L"1st",
                                               L" 1",
                                               L"+1",
                                               L"0x1",
                                               L"2147483647",
                                               L"2147483648",
                                               L"-2147483648",
                                               L"99999999999999999999",
                                               L"\u00e9",
                                               L"1\u00e9",
                                               L"1.5",
                                               L"4294967297",
                                               L"\t\n 2 ",
                                               L"--1",
                                               L"\uff11",
                                               std::wstring(49, L'0') + L"12",
                                               std::wstring(50, L' ') + L"1",
                                               L"00000000001",
                                               L"1\n"};
    return once(6) ? oneOf(odd) : std::to_wstring(usual);
}

void PolicyGenerator::putNumber(const Key& key, int usual) {
    if (!once(24)) {
        put(key, number(usual));
    }
}

/// A count that says what is there, or lies, though by little: a great one takes its time.
void PolicyGenerator::putCount(const Key& key, std::size_t entries) {
    if (once(40)) {
        return;
    }
    if (once(5)) {
        static const std::vector<int> off{-3, -1, 1, 2, 5};
        put(key, std::to_wstring(static_cast<int>(entries) + oneOf(off)));
    } else {
        put(key, once(20) ? oneOf(std::vector<std::wstring>{L"0", L"-1", L"many", L"7x"}) : std::to_wstring(entries));
    }
}

/// A text whose narrow form has that many bytes.
std::wstring PolicyGenerator::ofBytes(std::size_t bytes) {
    const std::size_t twice = once(2) ? bytes / 2 : below(3);
    return std::wstring(twice, L'\u00e9') + std::wstring(bytes - 2 * twice, L'x');
}

std::wstring PolicyGenerator::text() {
    static const std::vector<std::wstring> names{
        L"gb",         L"sn",        L"http://a/",     L"http://b/",     L"http://c/x",
        L"10.0.0.0/8", L"192.0.2.1", L"2001:db8::/32", L"\u00e9t\u00e9", L"\U0001f600",
        L"very odd",   L"a\tb"};
    static const std::vector<std::wstring> blanks{L"", L" ", L"\t", L"  ", L"\n", L" \t "};
    if (once(25)) {
        return ofBytes(kMaxNarrowBytes - 1 + below(4));
    }
    if (once(300)) {
        return std::wstring(kMaxTextCharacters - 1 + below(4), L'y');
    }
    if (once(25)) {
        return oneOf(blanks);
    }
    return once(6) ? oneOf(blanks) + oneOf(names) + oneOf(blanks) : oneOf(names);
}

void PolicyGenerator::putGeneral() {
    for (const Key* const key : {&keys::kEnable, &keys::kLogGreen, &keys::kLogAllowed, &keys::kUnverified,
                                 &keys::kPhishing, &keys::kUnreachable}) {
        if (!once(3)) {
            putNumber(*key, static_cast<int>(below(3)));
        }
    }
    if (!once(3)) {
        putRanges();
    }
}

void PolicyGenerator::putRanges() {
    const std::size_t entries = below(6);
    putCount(keys::kRangeCount, entries);
    for (std::size_t index = 0; index < entries; ++index) {
        if (!once(10)) {
            put(keys::kRange, text(), static_cast<int>(index));
        }
    }
}

std::wstring PolicyGenerator::digits(std::size_t length) {
    std::wstring text;
    for (std::size_t at = 0; at < length; ++at) {
        text += once(30) ? oneOf(std::vector<wchar_t>{L'x', L' ', L'\u00e9', L'\uff11'})
                         : static_cast<wchar_t>(L'0' + static_cast<wchar_t>(below(4)));
    }
    return text;
}

void PolicyGenerator::putContent() {
    putNumber(keys::kCategorize, once(4) ? -1 : once(5) ? 0 : 1);
    putNumber(keys::kRatings, static_cast<int>(below(0x200)));
    if (!once(3)) {
        putNumber(keys::kUncategorized, static_cast<int>(below(2)));
    }
    const bool areMany = once(12);
    const std::size_t categories = areMany ? 505 + below(10) : 1 + below(6);
    putCount(keys::kCategoryCount, categories);
    if (!once(40)) {
        const std::size_t length = once(6) ? categories + below(3) - 1 : categories;
        put(keys::kCategoryActions, once(60) ? digits(kMaxNarrowBytes - 1 + below(4)) : digits(length));
    }
    if (!once(40)) {
        putCodes(categories);
    }
}

/// Codes of sixteen characters with their comma, shifted, so that the text ends now before, now in, now behind one.
std::wstring PolicyGenerator::longCodes(std::size_t categories) {
    std::wstring listed(below(20), L',');
    for (std::size_t at = 0; at < categories; ++at) {
        std::wstring code = L"category-" + std::to_wstring(100000 + at);
        listed += code + L",";
    }
    if (once(2)) {
        listed.resize(std::min(listed.size(), kMaxTextCharacters - 2 + below(5)));
    }
    return listed;
}

void PolicyGenerator::putCodes(std::size_t categories) {
    constexpr std::size_t many = 100;
    if (categories > many) {
        put(keys::kCategoryCodes, longCodes(categories));
        return;
    }
    std::wstring listed;
    for (std::size_t at = 0; at < categories; ++at) {
        listed += (at == 0 ? L"" : once(20) ? L",," : L",") + text();
    }
    put(keys::kCategoryCodes, once(15) ? listed + L"," : listed);
}

void PolicyGenerator::putSites() {
    const std::size_t entries = below(8);
    putCount(keys::kSiteCount, entries);
    putNumber(keys::kPrecedence, static_cast<int>(below(2)));
    for (std::size_t index = 0; index < entries; ++index) {
        if (!once(12)) {
            put(keys::kSite, text(), static_cast<int>(index));
        }
        if (!once(12)) {
            put(keys::kSiteAction, number(static_cast<int>(below(2))), static_cast<int>(index));
        }
    }
}

} // namespace testing_support
