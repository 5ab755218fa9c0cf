// A call comes, the bus is asked whose it is, then its handler runs. What only reads or writes the book is answered
// there and then: a transaction of a row or two.
//
// A change of the daemon's list goes to the worker's thread, one at a time. A grant takes two pieces of work: a look,
// which tells what is in the list before, then, with that written down, the change. What is over is taken out between
// them, all of it with one change. goOn() is the one place that starts work: after each call, each end and each wake-up
// it looks for what is to be done next.
//
// Taking out never gives up. The daemon may be away, its file locked, the list in somebody else's hands, no thread to
// be had: then it is tried again, with a longer pause each time. Its rows stay in the book until the entry is gone.
//
// When a grant is over is a time of day, and follows the machine's clock when that is set. A pause is none, and does
// not.
#include "apps/hvbd/AccessService.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"
#include "base/PrintableText.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

namespace HVB::hub {
namespace {

constexpr const char* kReadingCall = "cannot read the message";
constexpr const char* kAnswering = "cannot send the reply";

template <class Time>
std::int64_t microsecondsIn(Time time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

ListOutcome notDone(const std::string& trouble) {
    return {.isDone = false, .isRefused = false, .trouble = trouble, .standing = {}};
}

/// A sender that cannot be answered has gone.
void refuseCall(sd_bus_message& call, const char* name, const std::string& why) {
    static_cast<void>(sd_bus_reply_method_errorf(&call, name, "%s", why.c_str()));
}

void answerCall(sd_bus_message& call, const char* types, std::uint64_t id) {
    bus::check(sd_bus_reply_method_return(&call, types, id), kAnswering);
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

/// The address as the user's program gave it: a browser's page, on one line.
void requireAddress(std::string_view url) {
    const auto startsWith = [&url](std::string_view scheme) {
        return url.size() > scheme.size() && std::equal(scheme.begin(), scheme.end(), url.begin(), [](char a, char b) {
                   return a == (b >= 'A' && b <= 'Z' ? b + 32 : b);
               });
    };
    if ((!startsWith("http://") && !startsWith("https://")) || std::any_of(url.begin(), url.end(), isControl) ||
        url.find(' ') != std::string_view::npos) {
        throw BadMessage("access is asked for to the address of a page, which begins with http:// or https:// and has "
                         "no blanks");
    }
}

void requireEntry(std::string_view entry) {
    if (entry.empty() || entry.size() > bus::kMaxGrantEntryBytes) {
        throw BadMessage(
            fmt::format("an entry has 1 to {} bytes, and this one has {}", bus::kMaxGrantEntryBytes, entry.size()));
    }
    if (std::any_of(entry.begin(), entry.end(), isControl) || entry.find(' ') != std::string_view::npos) {
        throw BadMessage("an entry has neither blanks nor control characters");
    }
}

void requireShort(std::size_t bytes, const char* what) {
    if (bytes > bus::kMaxRequestBytes) {
        throw BadMessage(
            fmt::format("{} {} bytes, and {} is the most: shorten it", what, bytes, bus::kMaxRequestBytes));
    }
}

struct Page {
    std::uint64_t after = 0;
    std::uint32_t limit = 0;
};

Page readPage(sd_bus_message& call) {
    Page page;
    bus::check(sd_bus_message_read(&call, bus::kReadPageSignature, &page.after, &page.limit), kReadingCall);
    page.limit = std::min(page.limit, bus::kMaxRequestsOfReply);
    return page;
}

template <class Row>
void answerRows(sd_bus_message& call, const char* fields, const std::vector<Row>& rows) {
    sd_bus_message* made = nullptr;
    bus::check(sd_bus_message_new_method_return(&call, &made), "cannot make a reply");
    const bus::MessagePtr reply(made);
    bus::check(sd_bus_message_open_container(made, 'a', fields), "cannot make a reply");
    for (const Row& row : rows) {
        bus::append(*made, row);
    }
    bus::check(sd_bus_message_close_container(made), "cannot make a reply");
    bus::check(sd_bus_send(nullptr, made, nullptr), kAnswering);
}

std::string entryShown(const std::string& entry) {
    constexpr std::size_t longest = 200;
    return Sentrel::text::shortened(Sentrel::text::printable(entry), longest);
}

} // namespace

// The bus's policy says who may call what. UNPRIVILEGED only means that the library does not add a rule of its own.
const sd_bus_vtable AccessService::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(bus::kAskForAccessMember, bus::kAskForAccessSignature,
                             SD_BUS_PARAM(url) SD_BUS_PARAM(reason), bus::kAskForAccessReplySignature, SD_BUS_PARAM(id),
                             &onCall<&AccessService::ask>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kReadOwnRequestsMember, bus::kReadPageSignature,
                             SD_BUS_PARAM(after) SD_BUS_PARAM(limit), bus::kReadRequestsReplySignature,
                             SD_BUS_PARAM(requests), &onCall<&AccessService::readOwn>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kReadRequestsMember, bus::kReadPageSignature, SD_BUS_PARAM(after) SD_BUS_PARAM(limit),
                             bus::kReadRequestsReplySignature, SD_BUS_PARAM(requests), &onCall<&AccessService::readAll>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kGrantRequestMember, bus::kGrantRequestSignature,
                             SD_BUS_PARAM(request) SD_BUS_PARAM(entry) SD_BUS_PARAM(seconds),
                             bus::kGrantRequestReplySignature, SD_BUS_PARAM(grant) SD_BUS_PARAM(until),
                             &onCall<&AccessService::grant>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kDenyRequestMember, bus::kDenyRequestSignature,
                             SD_BUS_PARAM(request) SD_BUS_PARAM(reason), "", "", &onCall<&AccessService::deny>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kReadGrantsMember, bus::kReadPageSignature, SD_BUS_PARAM(after) SD_BUS_PARAM(limit),
                             bus::kReadGrantsReplySignature, SD_BUS_PARAM(grants), &onCall<&AccessService::readGrants>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kRevokeGrantMember, bus::kRevokeGrantSignature, SD_BUS_PARAM(grant), "", "",
                             &onCall<&AccessService::revoke>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES(bus::kRequestsChangedMember, bus::kRequestsChangedSignature, SD_BUS_PARAM(count), 0),
    SD_BUS_VTABLE_END,
};

AccessService::AccessService(sd_event& event, AccessBook& book, ListWorker& worker, const SystemLog& log, Clock clock)
    : m_event(event), m_book(book), m_worker(worker), m_log(log), m_clock(std::move(clock)),
      m_changeCount(static_cast<std::uint64_t>(m_clock())), m_pause(kFirstEndPause),
      m_trouble(log, "grants that are over are taken out again") {}

AccessService::~AccessService() = default;

std::int64_t AccessService::systemTime() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

void AccessService::connected(sd_bus& bus) {
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_add_object_vtable(&bus, &slot, bus::kRequestsPath, bus::kRequestsInterface, kVtable, this),
               "cannot serve the object of the requests");
    m_object.reset(slot);
    m_bus = &bus;
    goOn();
}

void AccessService::lost() noexcept {
    m_object.reset();
    m_unknown.clear();
    m_revokers.clear();
    std::erase_if(m_changes, [](const Change& change) { return !change.hasBegun; });
    for (Change& underWay : m_changes) {
        underWay.call.reset();
    }
    m_bus = nullptr;
}

template <AccessService::Handler handler>
int AccessService::onCall(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<AccessService*>(self)->askForUser(*call, handler); });
}

void AccessService::askForUser(sd_bus_message& call, Handler handler) {
    if (sd_bus_message_get_expect_reply(&call) == 0) {
        return;
    }
    const char* const sender = sd_bus_message_get_sender(&call);
    const auto isOfSender = [sender](const UnknownCall& other) {
        return std::strcmp(sd_bus_message_get_sender(other.call.get()), sender) == 0;
    };
    if (m_unknown.size() >= kMaxUnknownCalls ||
        std::count_if(m_unknown.begin(), m_unknown.end(), isOfSender) >= kMaxUnknownCallsOfConnection) {
        refuseCall(call, bus::kErrorBusy, "too many calls about requests wait; try again later");
        return;
    }
    const bus::MessagePtr question =
        bus::newCall(*m_bus, bus::kDriver, bus::kDriverPath, bus::kDriver, bus::kGetConnectionUnixUserMember);
    bus::check(sd_bus_message_append(question.get(), "s", sender), "cannot ask whose a call is");
    m_unknown.push_back({*this, bus::MessagePtr(sd_bus_message_ref(&call)), handler, nullptr});
    sd_bus_slot* slot = nullptr;
    const int sent = sd_bus_call_async(m_bus, &slot, question.get(), onUser, &m_unknown.back(), 0);
    m_unknown.back().question.reset(slot);
    if (sent < 0) {
        m_unknown.pop_back();
        bus::check(sent, "cannot ask whose a call is");
    }
}

int AccessService::onUser(sd_bus_message* reply, void* unknown, sd_bus_error* /*error*/) {
    auto& waiting = *static_cast<UnknownCall*>(unknown);
    AccessService& service = waiting.service;
    const bus::MessagePtr call = std::move(waiting.call);
    const Handler handler = waiting.handler;
    service.m_unknown.remove_if([&waiting](const UnknownCall& each) { return &each == &waiting; });
    return logAndIgnore(service.m_log, "serving a call about requests", [&] {
        std::uint32_t user = 0;
        if (sd_bus_message_is_method_error(reply, nullptr) == 0 && sd_bus_message_read(reply, "u", &user) > 0) {
            service.handle(*call, handler, user);
        } // else its sender has gone
    });
}

void AccessService::handle(sd_bus_message& call, Handler handler, uid_t user) {
    try {
        (this->*handler)(call, user);
    } catch (const BadMessage& bad) {
        refuseCall(call, bus::kErrorBadMessage, bad.message());
    } catch (const AccessRefused& refused) {
        refuseCall(call, bus::kErrorRequestRefused, refused.what());
    } catch (const AccessBookError& failed) {
        refuseCall(call, bus::kErrorRequestStore, failed.what());
    } catch (const HVBException& failed) {
        refuseCall(call, bus::kErrorFailed, failed.message());
    }
}

void AccessService::ask(sd_bus_message& call, uid_t user) {
    const char* url = nullptr;
    const char* reason = nullptr;
    bus::check(sd_bus_message_read(&call, bus::kAskForAccessSignature, &url, &reason), kReadingCall);
    requireShort(std::strlen(url) + std::strlen(reason), "the address and the reason have together");
    requireAddress(url);
    answerCall(call, bus::kAskForAccessReplySignature, m_book.ask(user, url, reason, m_clock()));
    tellOfChange();
}

void AccessService::readOwn(sd_bus_message& call, uid_t user) {
    const Page page = readPage(call);
    answerRows(call, "(tuxsssxsx)", m_book.requests(page.after, page.limit, user));
}

void AccessService::readAll(sd_bus_message& call, uid_t /*user*/) {
    const Page page = readPage(call);
    answerRows(call, "(tuxsssxsx)", m_book.requests(page.after, page.limit));
}

void AccessService::readGrants(sd_bus_message& call, uid_t /*user*/) {
    const Page page = readPage(call);
    answerRows(call, "(ttusxxb)", m_book.grants(page.after, page.limit));
}

void AccessService::deny(sd_bus_message& call, uid_t user) {
    std::uint64_t id = 0;
    const char* why = nullptr;
    bus::check(sd_bus_message_read(&call, bus::kDenyRequestSignature, &id, &why), kReadingCall);
    requireShort(std::strlen(why), "the reason has");
    if (std::any_of(m_changes.begin(), m_changes.end(),
                    [id](const Change& change) { return change.grant.request == id; })) {
        throw AccessRefused(fmt::format("request {} is being granted just now: see what comes of that", id));
    }
    m_book.deny(id, why, user, m_clock());
    bus::check(sd_bus_reply_method_return(&call, ""), kAnswering);
    m_log.write(LOG_NOTICE, fmt::format("user {} denied request {}", user, id));
    tellOfChange();
}

void AccessService::grant(sd_bus_message& call, uid_t user) {
    Change change;
    const char* entry = nullptr;
    bus::check(sd_bus_message_read(&call, bus::kGrantRequestSignature, &change.grant.request, &entry, &change.seconds),
               kReadingCall);
    requireEntry(entry);
    if (change.seconds > bus::kMaxGrantSeconds) {
        throw BadMessage(fmt::format("a grant ends within {} seconds, or not at all (0)", bus::kMaxGrantSeconds));
    }
    if (m_changes.size() + m_revokers.size() >= kMaxGrantChanges) {
        refuseCall(call, bus::kErrorBusy, "too many changes of grants wait; try again later");
        return;
    }
    static_cast<void>(m_book.openRequest(change.grant.request));
    change.call.reset(sd_bus_message_ref(&call));
    change.by = user;
    change.grant.entry = entry;
    m_changes.push_back(std::move(change));
    goOn();
}

void AccessService::revoke(sd_bus_message& call, uid_t user) {
    Change change;
    bus::check(sd_bus_message_read(&call, bus::kRevokeGrantSignature, &change.id), kReadingCall);
    if (m_changes.size() + m_revokers.size() >= kMaxGrantChanges) {
        refuseCall(call, bus::kErrorBusy, "too many changes of grants wait; try again later");
        return;
    }
    m_book.endGrant(change.id, m_clock());
    m_log.write(LOG_NOTICE, fmt::format("user {} revoked grant {}", user, change.id));
    tellOfChange();
    change.call.reset(sd_bus_message_ref(&call));
    m_revokers.push_back(std::move(change));
    m_retryAt = {};
    goOn();
}

/// Starts what is to be done next, if nothing is under way.
void AccessService::goOn() noexcept {
    logAndIgnore(m_log, "changing grants", [this] {
        if (m_worker.isBusy() || m_bus == nullptr) {
            return;
        }
        if (!m_changes.empty()) {
            startChange();
        } else {
            startEnding();
        }
    });
}

void AccessService::startChange() {
    m_changes.front().hasBegun = true;
    try {
        m_worker.start(
            [entry = m_changes.front().grant.entry](DaemonList& list) {
                list.requireLocalGrants();
                return list.standing(entry);
            },
            [this](const ListOutcome& outcome) { looked(outcome); });
    } catch (const std::system_error& error) { // no thread is to be had
        looked(notDone(error.what()));
    }
}

/// The list was looked at: the grant is written down, then its entry is made.
void AccessService::looked(const ListOutcome& outcome) {
    if (!outcome.isDone) {
        endChange(outcome.isRefused ? bus::kErrorRequestRefused : bus::kErrorFailed, outcome.trouble);
        return;
    }
    Change& change = m_changes.front();
    try {
        const std::int64_t now = m_clock();
        change.grant.before = outcome.standing;
        change.grant.until = change.seconds == 0 ? 0 : now + microsecondsIn(std::chrono::seconds(change.seconds));
        change.id = m_book.beginGrant(change.grant, change.by, now);
        enter();
    } catch (const AccessRefused& refused) {
        endChange(bus::kErrorRequestRefused, refused.what());
    } catch (const std::exception& failed) {
        endChange(bus::kErrorRequestStore, failed.what());
    }
}

void AccessService::enter() {
    const NewGrant& grant = m_changes.front().grant;
    m_worker.start(
        [entry = grant.entry, before = grant.before](DaemonList& list) {
            list.change([&](EntryList& entries) {
                const EntryStanding now = standingOf(entries, entry);
                if (!now.isAllowed() && now != before) {
                    throw ListError(ListError::Kind::Trouble, "somebody changed the entry meanwhile: try again");
                }
                return allowEntry(entries, entry);
            });
            return EntryStanding{true, 0};
        },
        [this](const ListOutcome& outcome) { entered(outcome); });
}

void AccessService::entered(const ListOutcome& outcome) {
    Change& change = m_changes.front();
    if (!outcome.isDone) {
        // The change may be made all the same: its row is due, and the entry is taken out.
        endChange(bus::kErrorFailed, outcome.trouble);
        return;
    }
    try {
        m_book.confirmGrant(change.id, m_clock());
    } catch (const std::exception& failed) {
        endChange(bus::kErrorRequestStore, failed.what());
        return;
    }
    m_log.write(LOG_NOTICE, fmt::format("user {} granted request {}: {} is allowed (grant {})", change.by,
                                        change.grant.request, entryShown(change.grant.entry), change.id));
    if (change.call != nullptr) {
        static_cast<void>(sd_bus_reply_method_return(change.call.get(), bus::kGrantRequestReplySignature, change.id,
                                                     change.grant.until));
    }
    m_changes.pop_front();
    tellOfChange();
    goOn();
}

/// The grant that is being made is not made.
void AccessService::endChange(const char* errorName, const std::string& trouble) noexcept {
    logAndIgnore(m_log, "refusing a grant", [&] {
        if (m_changes.front().call != nullptr) {
            refuseCall(*m_changes.front().call, errorName, trouble);
        }
        m_changes.pop_front();
    });
    goOn();
}

void AccessService::startEnding() {
    if (std::chrono::steady_clock::now() < m_retryAt) {
        wakeAt(CLOCK_MONOTONIC, microsecondsIn(m_retryAt.time_since_epoch()));
        return;
    }
    std::vector<GrantEnd> ends;
    try {
        ends = m_book.due(m_clock());
        if (ends.empty()) {
            if (const std::optional<std::int64_t> next = m_book.nextEnd(); next) {
                wakeAt(CLOCK_REALTIME, *next);
            }
            return;
        }
        m_worker.start(
            [ends](DaemonList& list) {
                list.change([&](EntryList& entries) { return endGrants(entries, ends); });
                return EntryStanding();
            },
            [this, ends](const ListOutcome& outcome) { taken(ends, outcome); });
    } catch (const std::exception& error) { // the book, or no thread is to be had
        taken(ends, notDone(error.what()));
    }
}

/// The entries of @p ends are gone, or could not be taken out yet.
void AccessService::taken(const std::vector<GrantEnd>& ends, const ListOutcome& outcome) {
    std::string trouble = outcome.trouble;
    if (outcome.isDone) {
        try {
            m_book.takeOff(ends);
        } catch (const AccessBookError& error) {
            trouble = error.what();
        }
    }
    if (!trouble.empty() || !outcome.isDone) {
        m_trouble.met(fmt::format("grants that are over cannot be taken out of the list yet: {}", trouble));
        m_retryAt = std::chrono::steady_clock::now() + m_pause;
        m_pause = std::min(m_pause * 2, kLastEndPause);
        answerRevokers(ends, trouble.empty() ? "no reason is known" : trouble);
        goOn();
        return;
    }
    m_trouble.over();
    m_pause = kFirstEndPause;
    m_retryAt = {};
    for (const GrantEnd& end : ends) {
        m_log.write(LOG_NOTICE, fmt::format("grant {} is over: {}", end.grant, entryShown(end.entry)));
    }
    answerRevokers(ends, "");
    tellOfChange();
    goOn();
}

void AccessService::answerRevokers(std::span<const GrantEnd> ends, const std::string& trouble) {
    std::erase_if(m_revokers, [&](const Change& revoker) {
        const bool isDone =
            std::any_of(ends.begin(), ends.end(), [&revoker](const GrantEnd& end) { return end.grant == revoker.id; });
        if (isDone && trouble.empty()) {
            static_cast<void>(sd_bus_reply_method_return(revoker.call.get(), ""));
        } else if (isDone) {
            refuseCall(
                *revoker.call, bus::kErrorFailed,
                fmt::format("the grant is revoked, and its entry will be taken out as soon as that can be done: {}",
                            trouble));
        }
        return isDone;
    });
}

void AccessService::wakeAt(clockid_t clock, std::int64_t time) {
    constexpr std::uint64_t accuracy = 100'000; // microseconds
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_time(&m_event, &source, clock, static_cast<std::uint64_t>(std::max<std::int64_t>(time, 1)),
                                 accuracy, onEndTime, this),
               "cannot wait for the end of a grant");
    m_timer.reset(source);
}

int AccessService::onEndTime(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    static_cast<AccessService*>(self)->goOn();
    return 0;
}

/// Who cannot be told reads with the next call.
void AccessService::tellOfChange() noexcept {
    ++m_changeCount;
    if (m_bus != nullptr) {
        static_cast<void>(sd_bus_emit_signal(m_bus, bus::kRequestsPath, bus::kRequestsInterface,
                                             bus::kRequestsChangedMember, bus::kRequestsChangedSignature,
                                             m_changeCount));
    }
}

} // namespace HVB::hub
