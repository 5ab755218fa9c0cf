// The formats of rating lists, line by line.
#include "browser/ratings/ListFormats.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace {

using namespace Sentrel::ratings;

/// What comes of the lines: "host=marks" for each host, and a letter for a line of another kind: nothing at all for one
/// without content, "-" for one that is passed over, "!" for a bad one.
std::string readAs(ListFormat format, const std::string& text) {
    const auto reader = readerOf(format);
    std::string result;
    const HostSink sink = [&result](std::string_view host, Marks marks) {
        result += std::string(host) + "=" + std::to_string(marks) + " ";
    };
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const LineReading reading = reader->read(line, sink);
        result += reading.kind == LineKind::PassedOver ? "- " : reading.kind == LineKind::Bad ? "! " : "";
        EXPECT_EQ(reading.kind == LineKind::Bad, *reading.fault != '\0') << line;
    }
    return result;
}

TEST(AListOfHosts, NamesTheHostsThatLeadNowhere) {
    EXPECT_EQ(
        readAs(ListFormat::Hosts, "# Title\n\n0.0.0.0 Bad.Example # why\n127.0.0.1\ta.example b.example\n:: c.example"),
        "bad.example=1 a.example=1 b.example=1 c.example=1 ");
}

TEST(AListOfHosts, LeavesThisMachinesOwnNamesOut) {
    EXPECT_EQ(
        readAs(ListFormat::Hosts, "127.0.0.1 localhost\n::1 ip6-localhost\n0.0.0.0 0.0.0.0\n192.0.2.7 nas.example"),
        "- - - - ");
}

TEST(AListOfHosts, RefusesLinesOfAnotherFormat) {
    EXPECT_EQ(readAs(ListFormat::Hosts, "bad.example\n||bad.example^\n0.0.0.0\n0.0.0.0 a..example"), "! ! ! ! ");
}

TEST(AListOfDomains, CoversTheNamesBelowEach) {
    EXPECT_EQ(readAs(ListFormat::Domains,
                     "# Title\n! Title\nBad.Example\n*.other.example # why\n192.0.2.1\n\xC3\xBC.example"),
              "bad.example=3 other.example=3 192.0.2.1=3 xn--tda.example=3 ");
    EXPECT_EQ(readAs(ListFormat::Domains, "a b\nhttps://a.example/\na.example/path"), "! ! ! ");
}

TEST(AZoneOfPolicies, NamesItsTriggers) {
    const std::string zone = "$TTL 300\n"
                             "$ORIGIN rpz.example.\n"
                             "@ IN SOA localhost. root.localhost. (\n  1 ; serial\n  2 3 4 5 )\n"
                             "  IN NS localhost.\n"
                             "bad.test CNAME . ; why\n"
                             "*.bad.test 300 IN CNAME .\n"
                             "drop.test CNAME rpz-drop.\n"
                             "no-data.test CNAME *.\n"
                             "whole.test.rpz.example. CNAME .\n";
    EXPECT_EQ(readAs(ListFormat::Rpz, zone), "bad.test=1 bad.test=2 drop.test=1 no-data.test=1 whole.test=1 ");
}

TEST(AZoneOfPolicies, TakesABracketInATextForAText) {
    EXPECT_EQ(readAs(ListFormat::Rpz, "a.test TXT \"why (see; \\\" below\" ; (\nb.test CNAME ."), "- b.test=1 ");
}

TEST(AZoneOfPolicies, RefusesABracketThatClosesNothing) {
    EXPECT_EQ(readAs(ListFormat::Rpz, "a.test CNAME . )\n@ SOA a. b. (\n 1 2\n 3 4 5 )\nb.test CNAME ."),
              "! b.test=1 ");
}

TEST(AZoneOfPolicies, TakesOutWhatItLetsThrough) {
    EXPECT_EQ(readAs(ListFormat::Rpz, "good.test CNAME rpz-passthru.\n*.good.test CNAME rpz-passthru."),
              "good.test=4 good.test=8 ");
}

TEST(AZoneOfPolicies, PassesOverWhatIsNoBlockedName) {
    EXPECT_EQ(readAs(ListFormat::Rpz, "32.1.2.0.192.rpz-ip CNAME .\na.test CNAME garden.example.\na.test A 192.0.2.1\n"
                                      "a.test CNAME rpz-tcp-only.\n$INCLUDE /etc/passwd"),
              "- - - - - ");
    EXPECT_EQ(readAs(ListFormat::Rpz, "a.test\na.test CNAME\n$ORIGIN z.\na.other. CNAME ."), "! ! ! ");
}

TEST(AListOfFilters, NamesTheHostsThatItBlocksAltogether) {
    EXPECT_EQ(readAs(ListFormat::Adblock,
                     "[Adblock Plus 2.0]\n! Title\n||bad.example^\n||all.example^$all\n"
                     "||doc.example^$document,popup\n||must.example^$important\nplain.example\n1.2.3.4"),
              "bad.example=3 all.example=3 doc.example=3 must.example=3 plain.example=3 1.2.3.4=3 ");
}

TEST(AListOfFilters, TakesExceptionsOut) {
    EXPECT_EQ(readAs(ListFormat::Adblock, "@@||good.example^\n@@||doc.example^$document"),
              "good.example=12 doc.example=12 ");
}

TEST(AListOfFilters, PassesOverWhatNamesAPartOfAHost) {
    for (const char* line : {"||a.example^$third-party",
                             "||a.example^$domain=b.example",
                             "||a.example/path^",
                             "||a.example^path",
                             "||a.example",
                             "a.example##.ad",
                             "###ad",
                             "/ads/*",
                             "||*.a.example^",
                             "||a.example^$script",
                             "||a.example^$popup",
                             "@@||a.example^$generichide",
                             "@@||a.example^$image",
                             "||a.example^$badfilter",
                             "||a.example^$removeparam=x",
                             "|https://a.example^",
                             "banner",
                             "@@a.example",
                             "||^",
                             "||a..example^",
                             "||a.example^$document,domain=b.example",
                             "a.example$document"}) {
        EXPECT_EQ(readAs(ListFormat::Adblock, line), "- ") << line;
    }
}

TEST(AListOfFilters, PassesOverPartsOfAddressesThatLookLikeAHostAlone) {
    for (const char* line : {"-120x600.", "_728x90.", "-click-tracker.", ".com.",
                             "&ep.analytics_storage=", "a.example,b.c", "a.example~b", "a+b.example", "a.example."}) {
        EXPECT_EQ(readAs(ListFormat::Adblock, line), "- ") << line;
    }
    EXPECT_EQ(readAs(ListFormat::Adblock, "_dmarc.a-b.example\nb\xc3\xbc"
                                          "cher.example"),
              "_dmarc.a-b.example=3 xn--bcher-kva.example=3 ");
}

TEST(AFormat, HasAName) {
    for (const ListFormat format : {ListFormat::Hosts, ListFormat::Domains, ListFormat::Rpz, ListFormat::Adblock}) {
        EXPECT_EQ(formatNamed(nameOfFormat(format)), format);
    }
    EXPECT_FALSE(formatNamed("csv").has_value());
    EXPECT_FALSE(formatNamed("").has_value());
}

} // namespace
