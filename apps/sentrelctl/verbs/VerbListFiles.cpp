// sentrelctl list import and list export: the allow/block list as a file.
//
// The two are made for each other: what an export writes, an import takes.
//
// What must stay so:
// - An import reads and checks the whole file before it asks the daemon for anything. One bad line is enough to import
//   nothing, unless --skip-bad is given.
// - A file without a URL is refused. In a pipe it means that the program in front has failed, which must not empty the
//   list.
// - Each URL is sent once, with its last action. The list is compared with what the daemon serves afterwards, and the
//   settings file keeps each URL once.
// - An export reads the list before it opens the file: when the daemon does not answer, the old file is still whole.
// - Entries that an import would refuse are left out of an export, which then fails and says how many they are. They
//   come from policies and other clients.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/ListChange.h"
#include "apps/sentrelctl/requests/GrantEnding.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/PrintableText.h"
#include "base/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{64} << 20; // more would only fill this process's memory
constexpr std::size_t kMaxComplaints = 20;                   // a file of another kind is all bad lines

struct ListFilesOptions {
    std::string file = "-";
    bool allow = false;
    bool block = false;
    bool replace = false;
    bool skipBad = false;
    double timeout = kListTimeout;
};

void complain(Output& err, const std::string& name, const std::vector<BadLine>& bad) {
    std::string text;
    for (std::size_t i = 0; i < std::min(bad.size(), kMaxComplaints); ++i) {
        text += fmt::format("sentrelctl: {}: line {}: {}.\n", text::printable(name), bad[i].number, bad[i].why);
    }
    if (bad.size() > kMaxComplaints) {
        text += fmt::format("sentrelctl: {}: and {} lines more.\n", text::printable(name), bad.size() - kMaxComplaints);
    }
    err.write(text);
}

UrlList entriesOf(Session& session, const ListFilesOptions& options) {
    const std::string name = options.file == "-" ? "standard input" : options.file;
    ParsedList parsed =
        parseList(contentOf(options.file, session.inputFd, kMaxFileBytes), options.allow ? kAllow : kBlock);
    complain(session.err, name, parsed.bad);
    if (!parsed.bad.empty() && !options.skipBad) {
        throw Failure(ExitCode::Failed, "nothing was imported", name,
                      fmt::format("{} {} no URL", parsed.bad.size(), parsed.bad.size() == 1 ? "line is" : "lines are"),
                      "Mend the file, or leave them out with --skip-bad");
    }
    // A pipe whose front end failed must not empty the list.
    if (parsed.entries.empty()) {
        throw Failure(ExitCode::Failed, "nothing was imported", name, "there is no URL in it",
                      "'sentrelctl list remove --all' empties the list");
    }
    // Each URL once, so that what is stored can be compared with what is served.
    UrlList entries;
    applyChanges(entries, parsed.entries);
    return entries;
}

void listImport(Session& session, const ListFilesOptions& options) {
    const UrlList entries = entriesOf(session, options);
    const EndedGrants endedGrants = endGrantsOf(session, entries, options.timeout);
    PreferenceClient client(options.timeout);
    UrlList list;
    if (!options.replace) {
        list = client.read(ST_ALLOW_BLOCK_LIST).list;
    }
    applyChanges(list, entries);
    const UrlList now = replaceList(session, client, list, options.timeout);
    tellOfUnseenGrants(session, endedGrants);
    if (session.json == JsonMode::Off) {
        session.out.write(fmt::format("Imported {}. The list has {}.\n", countText(entries), countText(now)));
        return;
    }
    Json json = countJson(now);
    json["imported"] = countJson(entries);
    json["ended_grants"] = endedGrantsJson(endedGrants);
    session.out.write(jsonText(json, session.json));
}

/// Writes the lines where they are to go, and says so when that is a file.
void writeLines(Session& session, const ListFilesOptions& options, const UrlList& list) {
    std::string lines;
    for (const ListEntry& entry : list) {
        lines += listLine(entry) + "\n";
    }
    if (options.file == "-") {
        session.out.write(lines);
        return;
    }
    constexpr mode_t asTheUmaskSays = 0666;
    const UniqueFd file(::open(options.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, asTheUmaskSays));
    if (!file.isOpen()) {
        throw fileFailure("cannot open", options.file, errno);
    }
    Output(file.get()).write(lines);
    session.out.write(session.json == JsonMode::Off
                          ? fmt::format("Exported {} to {}.\n", countText(list), text::printable(options.file))
                          : jsonText(countJson(list), session.json));
}

void listExport(Session& session, const ListFilesOptions& options) {
    if (options.file == "-" && session.json != JsonMode::Off) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "an export to standard output is lines and no JSON",
                      "'sentrelctl list show --json' gives the list as JSON");
    }
    UrlList list = PreferenceClient(options.timeout).read(ST_ALLOW_BLOCK_LIST).list;
    const std::size_t all = list.size();
    // What an import would refuse. It came from a policy or another client.
    std::erase_if(list, [](const ListEntry& entry) { return faultOfUrl(entry.url).has_value(); });
    writeLines(session, options, list);
    if (list.size() < all) {
        throw Failure(ExitCode::Failed, "not everything was exported", "",
                      fmt::format("{} of {} entries fit into no line", all - list.size(), all),
                      "'sentrelctl list show' tells which");
    }
}

Work describeImport(OptionSet& set, Session& session) {
    const auto options = std::make_shared<ListFilesOptions>();
    set.add("file", options->file, "The file; -: standard input").required().shownAs("FILE|-");
    const Option allow = set.addFlag("--allow", options->allow, "Allow the URLs that have no word in front");
    set.addFlag("--block", options->block, "Block them (the default)").excludes(allow);
    set.addFlag("--replace", options->replace, "Make the file the whole list");
    set.addFlag("--skip-bad", options->skipBad, "Leave out lines that are no URL instead of giving up");
    set.addTimeout(options->timeout);
    return [options, &session] { listImport(session, *options); };
}

Work describeExport(OptionSet& set, Session& session) {
    const auto options = std::make_shared<ListFilesOptions>();
    options->timeout = kDefaultTimeout;
    set.add("file", options->file, "The file; without it, or -: standard output").shownAs("[FILE]");
    set.addTimeout(options->timeout);
    return [options, &session] { listExport(session, *options); };
}

} // namespace

Verbs listFileVerbs() {
    static constexpr std::array<Verb, 2> verbs{{
        {"list", "import",
         "Enters the URLs of a file, one a line. Blank lines and those that begin with # are "
         "skipped; allow or block in front of a URL says what it is, as an export has it.",
         "  sentrelctl list import blocked.txt\n"
         "  sentrelctl list export | ssh other sentrelctl list import --replace -",
         describeImport},
        {"list", "export", "Writes the list as lines that import reads.", "  sentrelctl list export saved.txt",
         describeExport},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
