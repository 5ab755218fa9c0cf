// Feeds a list to the importer of each format, and the bytes of a database to its reader. What an importer takes is a
// host in its one form, in an order in which each comes once; the reader refuses, or answers for every page.
#include "base/UniqueFd.h"
#include "browser/ratings/EntryList.h"
#include "browser/ratings/HostNames.h"
#include "browser/ratings/RatingDatabase.h"
#include "fuzz/Require.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Sentrel::ratings;
using fuzz::require;

void importAs(ListFormat format, std::string_view text) {
    const auto reader = readerOf(format);
    EntryList entries;
    const HostSink sink = [&entries](std::string_view host, Marks marks) {
        require(normalisedHost(host) == host && hostOfKey(orderedKey(host)) == host && (marks & kAllMarks) != 0);
        entries.add(host, marks);
    };
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const LineReading reading =
            line.find('\0') == std::string_view::npos ? reader->read(line, sink) : LineReading();
        require((reading.kind == LineKind::Bad) == (*reading.fault != '\0'));
    }
    entries.arrange(exceptionsBeatEntries(format));
    std::string last;
    entries.forEach([&last](std::string_view key, Marks) {
        require(last < key);
        last = key;
    });
}

void readDatabase(std::string_view bytes) {
    const Sentrel::UniqueFd file(::memfd_create("ratings", MFD_CLOEXEC));
    require(::write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
            ::fchmod(file.get(), 0600) == 0);
    try {
        const RatingDatabase database(file.get());
        const RatingTable table = database.table();
        for (const char* page : {"https://www.site.example/", "https://192.0.2.1/", "https://example/"}) {
            database.find(std::get<0>(Sentrel::browsing::parseWebUrl(page)));
        }
        require(table.names.size() <= bytes.size());
    } catch (const UnusableList&) {
        return; // as it should be
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const ListFormat format : {ListFormat::Hosts, ListFormat::Domains, ListFormat::Rpz, ListFormat::Adblock}) {
        importAs(format, text);
    }
    readDatabase(text);
    return 0;
}
