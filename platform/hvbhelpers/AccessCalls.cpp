// The calls about requests and grants, for every client of the hub: the command line, and a browser's program, which
// asks with a user's rights alone.
//
// A list comes in pages, so that it fits into messages whatever its texts are: each call asks for what comes behind the
// last id, until a page is empty. The form of a row on the bus is here alone; hvbd appends its rows with these
// functions too.
#include "platform/hvbhelpers/AccessCalls.h"

#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace HVB::bus {
namespace {

constexpr std::array<const char*, 3> kRequestStates{"open", "granted", "denied"};
constexpr const char* kMaking = "making a call about requests";
constexpr const char* kReading = "reading an answer about requests";

MessagePtr newRequestsCall(sd_bus& bus, const char* member) {
    return newCall(bus, kHubName, kRequestsPath, kRequestsInterface, member);
}

/// A text of the bus ends at a NUL, so one inside it would be cut unseen.
std::string busText(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) {
        throw HVBException(-EINVAL, "a text of a request has a NUL in it");
    }
    return std::string(text);
}

RequestState stateOf(std::string_view word) {
    const auto* const found = std::find(kRequestStates.begin(), kRequestStates.end(), word);
    if (found == kRequestStates.end()) {
        throw HVBException(-EBADMSG, "the hub's answer has a request in a state that is not known here");
    }
    return static_cast<RequestState>(found - kRequestStates.begin());
}

bool readNext(sd_bus_message& reply, AccessRequest& request) {
    const char* url = nullptr;
    const char* reason = nullptr;
    const char* state = nullptr;
    const char* answer = nullptr;
    const int found = sd_bus_message_read(&reply, "(tuxsssxsx)", &request.id, &request.user, &request.askedAt, &url,
                                          &reason, &state, &request.answeredAt, &answer, &request.until);
    check(found, kReading);
    if (found > 0) {
        request.url = url;
        request.reason = reason;
        request.state = stateOf(state);
        request.answer = answer;
    }
    return found > 0;
}

bool readNext(sd_bus_message& reply, AccessGrant& grant) {
    const char* entry = nullptr;
    int isEnding = 0;
    const int found = sd_bus_message_read(&reply, "(ttusxxb)", &grant.id, &grant.request, &grant.user, &entry,
                                          &grant.grantedAt, &grant.until, &isEnding);
    check(found, kReading);
    if (found > 0) {
        grant.entry = entry;
        grant.isEnding = isEnding != 0;
    }
    return found > 0;
}

/// All pages of a list.
template <class Row>
std::vector<Row> readAll(sd_bus& bus, const char* member, const char* signature, Deadline deadline) {
    std::vector<Row> rows;
    for (bool isMore = true; isMore;) {
        const MessagePtr request = newRequestsCall(bus, member);
        check(sd_bus_message_append(request.get(), kReadPageSignature, rows.empty() ? 0 : rows.back().id,
                                    kMaxRequestsOfReply),
              kMaking);
        const MessagePtr reply = call(bus, *request, deadline);
        if (sd_bus_message_has_signature(reply.get(), signature) <= 0) {
            throw HVBException(-EBADMSG, "the hub's answer is no list of requests or grants");
        }
        check(sd_bus_message_enter_container(reply.get(), 'a', nullptr), kReading);
        const std::size_t before = rows.size();
        for (Row row; readNext(*reply, row);) {
            rows.push_back(row);
        }
        isMore = rows.size() > before;
    }
    return rows;
}

} // namespace

const char* stateWord(RequestState state) {
    return kRequestStates.at(static_cast<std::size_t>(state));
}

std::uint64_t askForAccess(sd_bus& bus, std::string_view url, std::string_view reason, Deadline deadline) {
    const MessagePtr request = newRequestsCall(bus, kAskForAccessMember);
    check(sd_bus_message_append(request.get(), kAskForAccessSignature, busText(url).c_str(), busText(reason).c_str()),
          kMaking);
    const MessagePtr reply = call(bus, *request, deadline);
    std::uint64_t id = 0;
    check(sd_bus_message_read(reply.get(), kAskForAccessReplySignature, &id), kReading);
    return id;
}

std::vector<AccessRequest> readOwnRequests(sd_bus& bus, Deadline deadline) {
    return readAll<AccessRequest>(bus, kReadOwnRequestsMember, kReadRequestsReplySignature, deadline);
}

std::vector<AccessRequest> readRequests(sd_bus& bus, Deadline deadline) {
    return readAll<AccessRequest>(bus, kReadRequestsMember, kReadRequestsReplySignature, deadline);
}

AccessGrant grantRequest(sd_bus& bus, std::uint64_t request, const std::string& entry, std::uint64_t seconds,
                         Deadline deadline) {
    const MessagePtr message = newRequestsCall(bus, kGrantRequestMember);
    check(sd_bus_message_append(message.get(), kGrantRequestSignature, request, busText(entry).c_str(), seconds),
          kMaking);
    const MessagePtr reply = call(bus, *message, deadline);
    AccessGrant grant;
    check(sd_bus_message_read(reply.get(), kGrantRequestReplySignature, &grant.id, &grant.until), kReading);
    return grant;
}

void denyRequest(sd_bus& bus, std::uint64_t request, std::string_view why, Deadline deadline) {
    const MessagePtr message = newRequestsCall(bus, kDenyRequestMember);
    check(sd_bus_message_append(message.get(), kDenyRequestSignature, request, busText(why).c_str()), kMaking);
    call(bus, *message, deadline);
}

std::vector<AccessGrant> readGrants(sd_bus& bus, Deadline deadline) {
    return readAll<AccessGrant>(bus, kReadGrantsMember, kReadGrantsReplySignature, deadline);
}

void revokeGrant(sd_bus& bus, std::uint64_t grant, Deadline deadline) {
    const MessagePtr message = newRequestsCall(bus, kRevokeGrantMember);
    check(sd_bus_message_append(message.get(), kRevokeGrantSignature, grant), kMaking);
    call(bus, *message, deadline);
}

void append(sd_bus_message& reply, const AccessRequest& request) {
    check(sd_bus_message_append(&reply, "(tuxsssxsx)", request.id, request.user, request.askedAt, request.url.c_str(),
                                request.reason.c_str(), stateWord(request.state), request.answeredAt,
                                request.answer.c_str(), request.until),
          "cannot answer with the requests");
}

void append(sd_bus_message& reply, const AccessGrant& grant) {
    check(sd_bus_message_append(&reply, "(ttusxxb)", grant.id, grant.request, grant.user, grant.entry.c_str(),
                                grant.grantedAt, grant.until, grant.isEnding ? 1 : 0),
          "cannot answer with the grants");
}

} // namespace HVB::bus
