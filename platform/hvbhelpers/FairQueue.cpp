#include "platform/hvbhelpers/FairQueue.h"

#include <algorithm>
#include <utility>

namespace HVB::detail {

bool FairQueue::push(const Sender& sender, std::size_t bytes, Job job) {
    User& user = m_users[sender.user];
    if (user.jobs >= m_bounds.jobsOfUser || (user.jobs > 0 && user.bytes + bytes > m_bounds.bytesOfUser)) {
        return false;
    }
    // Whatever needs memory comes first; the rest only moves nodes of lists.
    std::list<Waiting> added;
    added.push_back({bytes, std::move(job)});
    std::list<uid_t> turn;
    if (user.jobs == 0) {
        turn.push_back(sender.user);
    }
    auto found = std::find_if(user.turns.begin(), user.turns.end(),
                              [&](const Connection& one) { return one.name == sender.connection; });
    if (found == user.turns.end()) {
        found = user.turns.insert(found, Connection{sender.connection, {}});
    }
    found->jobs.splice(found->jobs.end(), added);
    m_turns.splice(m_turns.end(), turn);
    user.bytes += bytes;
    ++user.jobs;
    return true;
}

std::list<uid_t>::const_iterator FairQueue::nextReady() const {
    return std::find_if(m_turns.begin(), m_turns.end(),
                        [this](uid_t user) { return m_users.at(user).running < m_bounds.runningOfUser; });
}

bool FairQueue::hasReady() const {
    return nextReady() != m_turns.end();
}

FairQueue::Taken FairQueue::take() noexcept {
    const auto turn = nextReady();
    const uid_t id = *turn;
    User& user = m_users.at(id);
    Connection& connection = user.turns.front();
    Taken next{id, std::move(connection.jobs.front().job)};
    user.bytes -= connection.jobs.front().bytes;
    connection.jobs.pop_front();
    --user.jobs;
    ++user.running;
    if (connection.jobs.empty()) {
        user.turns.pop_front();
    } else {
        user.turns.splice(user.turns.end(), user.turns, user.turns.begin());
    }
    if (user.jobs == 0) {
        m_turns.erase(turn);
    } else {
        m_turns.splice(m_turns.end(), m_turns, turn);
    }
    return next;
}

void FairQueue::finished(uid_t user) noexcept {
    const auto found = m_users.find(user);
    --found->second.running;
    if (found->second.running == 0 && found->second.jobs == 0) {
        m_users.erase(found);
    }
}

} // namespace HVB::detail
