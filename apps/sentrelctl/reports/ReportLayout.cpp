// A stored report as a block of lines for people, and as JSON for programs. Both start from the same decoded record.
//
// A report of a browser event is known by its URL and its action, and is told in words with the codes behind them. For
// any other report every pair is shown as it is: nobody here knows what it means.
//
// What must stay so:
// - Words are given only where the meaning of a code is known. Another code is shown as it is.
// - A record that cannot be decoded gets its block too, with the reason. It never ends a listing.
// - Values come from browsers: they are made printable for people, and valid UTF-8 for JSON.
// - JSON has every field under a fixed name, null when it is missing, and times in UTC. People see their local time.
#include "apps/sentrelctl/reports/ReportLayout.h"

#include "apps/sentrelctl/reports/ReportFields.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <string_view>

namespace Sentrel::ctl {

using Sentrel::text::narrowed;
using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

struct Word {
    std::string_view code;
    const char* word;
};

// 6 stands for a site without a rating as well as for one whose rating nobody verified.
constexpr std::array<Word, 5> kRatings{
    {{"1", "minimal risk"}, {"2", "yellow"}, {"3", "red"}, {"4", "unrated"}, {"6", "unrated or unverified"}}};
constexpr std::array<Word, 4> kReasons{
    {{"1", "rating"}, {"2", "allow/block list"}, {"3", "phishing"}, {"5", "content category"}}};
// Other codes are what the user answered to a warning.
constexpr std::array<Word, 3> kActionWords{{{"1", "allowed"}, {"2", "warned"}, {"4", "blocked"}}};
constexpr std::array<Word, 3> kLists{
    {{"1", "not on the allow/block list"}, {"2", "on the list, not blocked by it"}, {"3", "blocked by the list"}}};
constexpr std::array<Word, 2> kKinds{{{"st.detect.url", "threat"}, {"ops.informational.event", "information"}}};

template <std::size_t size>
const char* wordFor(const std::array<Word, size>& words, std::string_view code, const char* unknown) {
    const auto* const found =
        std::find_if(words.begin(), words.end(), [code](const Word& each) { return each.code == code; });
    return found != words.end() ? found->word : unknown;
}

template <std::size_t size>
std::string inWords(const std::array<Word, size>& words, const std::string& code, const char* unknown = nullptr) {
    const char* word = wordFor(words, code, unknown);
    return word != nullptr && !code.empty() ? fmt::format("{} ({})", word, code) : code;
}

std::string valueOf(const DetailReportData& detail, const wchar_t* key) {
    return printable(informationOf(detail, key));
}

/// The text of one report while it grows.
class Block {
public:
    explicit Block(const Palette& palette) : m_palette(palette) {}

    void headline(const StoredRecord& record, const char* mark, const std::string& what) {
        m_text = fmt::format("{}#{}{}  {}  {}{}{}\n", m_palette.strong, record.id, m_palette.plain,
                             localTime(record.storedAt), mark, what, *mark != '\0' ? m_palette.plain : "");
    }

    /// A line of its own for a value; none when it is empty.
    void line(std::string_view name, std::string_view value) {
        if (!value.empty()) {
            m_text += fmt::format("    {}{:<9}{} {}\n", m_palette.faint, name, m_palette.plain, value);
        }
    }

    const std::string& text() const { return m_text; }

private:
    const Palette& m_palette;
    std::string m_text;
};

std::string who(const DetailReportData& detail) {
    const std::string user = printable(userAtHostOf(detail));
    const std::string address = printable(attributeOf(detail, L"SourceIPV4"));
    return address.empty() ? user : fmt::format("{} ({})", user, address);
}

void layBrowserEvent(Block& block, const StoredRecord& record, const DetailReportData& detail, const Palette& palette) {
    const std::string kind = printable(attributeOf(detail, L"ThreatCategory"));
    const std::string action = valueOf(detail, L"ActionID");
    const std::string severity = printable(attributeOf(detail, L"ThreatSeverity"));
    const char* kindWord = wordFor(kKinds, kind, kind.c_str());
    block.headline(record, std::string_view(kindWord) == "threat" ? palette.alarm : "",
                   fmt::format("{}, {}{}", wordFor(kActionWords, action, "answered by the user"), kindWord,
                               severity.empty() ? "" : fmt::format(" (severity {})", severity)));
    block.line("URL", valueOf(detail, L"URL"));
    block.line("Browser", printable(attributeOf(detail, L"SourceProcessName")));
    block.line("User", who(detail));
    block.line("Rating", inWords(kRatings, valueOf(detail, L"RatingID")));
    block.line("Reason", inWords(kReasons, valueOf(detail, L"ReasonID")));
    block.line("Action", inWords(kActionWords, action, "answer to a warning"));
    block.line("List", inWords(kLists, valueOf(detail, L"ListID")));
    block.line("Category", valueOf(detail, L"ContentID"));
    block.line("Count", valueOf(detail, L"Count"));
}

template <class Pairs>
void layPairs(Block& block, const Pairs& pairs) {
    for (const auto& [key, value] : pairs) {
        // A pair without a value is still a pair.
        const std::string shown = printable(narrowed(value));
        block.line(printable(narrowed(key)), shown.empty() ? "-" : shown);
    }
}

template <class Pairs>
Json pairsJson(const Pairs& pairs) {
    Json list = Json::array();
    for (const auto& [key, value] : pairs) {
        list.push_back(Json{{"key", validUtf8(narrowed(key))}, {"value", validUtf8(narrowed(value))}});
    }
    return list;
}

Json attributesJson(const DetailReportData::Attributes& attributes) {
    Json object = Json::object();
    for (const auto& [key, value] : attributes) {
        object[validUtf8(narrowed(key))] = validUtf8(narrowed(value));
    }
    return object;
}

Json shortJson(const ReportData& report) {
    return Json{{"row_id", report.m_rowId},
                {"name", validUtf8(narrowed(report.m_reportName))},
                {"sub_type", validUtf8(narrowed(report.m_subType))},
                {"time", report.m_time},
                {"report_type", report.m_reportType}};
}

Json detailJson(const DetailReportData& detail) {
    Json nested = Json::array();
    for (const auto& [key, attributes] : detail.m_nested) {
        nested.push_back(Json{{"key", validUtf8(narrowed(key))}, {"value", attributesJson(attributes)}});
    }
    return Json{{"name", validUtf8(narrowed(detail.m_name))},
                {"attributes", attributesJson(detail.attributes)},
                {"info", pairsJson(detail.info)},
                {"nested", nested},
                {"flag", detail.m_flag},
                {"time", detail.m_time},
                {"report_type", detail.m_reportType}};
}

} // namespace

std::string reportText(const StoredRecord& record, const DecodedReport& decoded, const Palette& palette) {
    Block block(palette);
    if (isBrowserEvent(decoded)) {
        layBrowserEvent(block, record, *decoded.detail, palette);
    } else {
        block.headline(record, decoded.error.empty() ? "" : palette.caution, titleOf(record, decoded));
        if (decoded.detail) {
            layPairs(block, decoded.detail->attributes);
            layPairs(block, decoded.detail->info);
        }
    }
    if (!decoded.error.empty()) {
        block.line("Unread", "cannot be decoded: " + printable(decoded.error));
    }
    return block.text();
}

Json reportJson(const StoredRecord& record, const DecodedReport& decoded) {
    return Json{{"id", record.id},
                {"stored_at", utcTime(record.storedAt)},
                {"source", record.source},
                {"type", record.type},
                {"count", record.count},
                {"report", decoded.report ? shortJson(*decoded.report) : Json(nullptr)},
                {"detail", decoded.detail ? detailJson(*decoded.detail) : Json(nullptr)},
                {"error", decoded.error.empty() ? Json(nullptr) : Json(validUtf8(decoded.error))}};
}

} // namespace Sentrel::ctl
