// How the single values of a policy are read.
#pragma once

#include "policy/PolicyKeys.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::policy {

/// A number as it is read from a text.
struct PolicyNumber {
    int value;    ///< 0 when the text does not begin with one
    bool isWhole; ///< the whole text is a number of 32 bits; otherwise its beginning was taken, or 0
};
/// Reads at most kMaxNumberCharacters of @p text, and none behind a character that is not ASCII.
PolicyNumber readNumber(std::wstring_view text);

/// A text as far as it is taken.
struct PolicyText {
    std::wstring text;
    wchar_t cutOff = L'\0'; ///< the first character that was not taken

    bool isCut() const { return cutOff != L'\0'; }
};
/// Cuts @p whole at kMaxTextCharacters. Requires that there is no NUL in it.
PolicyText readText(std::wstring_view whole);

/// The narrow form of a text. None when it takes more than kMaxNarrowBytes: half a text would mean something else.
std::optional<std::string> narrowText(const std::wstring& text);

/// A policy document, in which keys are looked up.
/// Threads: the implementor's. Owner: the caller.
class PolicySource {
public:
    PolicySource() = default;
    PolicySource(const PolicySource&) = delete;
    PolicySource& operator=(const PolicySource&) = delete;
    virtual ~PolicySource() = default;

    /// What readNumber and readText make of the value. @param index of an indexed key; 0 for others.
    /// @return nothing when the key is missing.
    virtual std::optional<int> number(const PolicyKey& key, int index) const = 0;
    virtual std::optional<PolicyText> text(const PolicyKey& key, int index) const = 0;
};

/// Whether a policy is put into force. It is, unless it says that it is not.
constexpr bool isEnforced(std::optional<int> status) {
    return !status || *status > 0;
}

/// Whether a switch is on.
constexpr bool isOn(int value) {
    return value == 1;
}

/// What happens to a visit, as the preferences code it.
enum class VisitAction : int {
    Allow = 1,
    Warn = 2,
    Block = 3,
};

/// The action of kUnverified, whose codes are the policy's own: 0 blocks.
constexpr VisitAction unverifiedAction(int value) {
    constexpr int block = 0;
    constexpr int warn = 2;
    return value == block ? VisitAction::Block : value == warn ? VisitAction::Warn : VisitAction::Allow;
}

/// The value of kCategorize that leaves the categories alone, and that of kRatings that leaves the ratings alone.
inline constexpr int kCategoriesStay = -1;
inline constexpr int kRatingsStay = 0;
/// What kUncategorized and kPrecedence are when they are missing.
inline constexpr int kUncategorizedByDefault = 0;
inline constexpr int kPrecedenceByDefault = -1;

/// Whether the allow entries of the list win over its block entries.
constexpr bool doesAllowWin(int precedence) {
    return precedence != 0;
}

enum class Rating {
    Yellow,
    Red,
    Unverified,
};

/// One rating's three bits in the value of kRatings, of which each stands for an action.
struct RatingField {
    Rating rating;
    unsigned shift;
    VisitAction byDefault; ///< for bits that are no single action

    constexpr unsigned bitsOf(int packed) const {
        constexpr unsigned field = 7;
        return (static_cast<unsigned>(packed) >> shift) & field;
    }
    constexpr bool isSingle(int packed) const {
        const unsigned bits = bitsOf(packed);
        return bits != 0 && (bits & (bits - 1)) == 0;
    }
    constexpr VisitAction actionOf(int packed) const {
        constexpr unsigned allow = 1;
        constexpr unsigned warn = 2;
        if (!isSingle(packed)) {
            return byDefault;
        }
        const unsigned bits = bitsOf(packed);
        return bits == allow ? VisitAction::Allow : bits == warn ? VisitAction::Warn : VisitAction::Block;
    }
};

/// In the order in which they are put into force.
inline constexpr std::array<RatingField, 3> kRatingFields{{
    {Rating::Yellow, 0, VisitAction::Warn},
    {Rating::Red, 3, VisitAction::Block},
    {Rating::Unverified, 6, VisitAction::Warn},
}};

} // namespace Sentrel::policy
