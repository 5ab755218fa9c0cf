#include "platform/hvbhelpers/FairQueue.h"

#include <algorithm>
#include <utility>

namespace HVB::detail {

bool FairQueue::push(const Sender& sender, std::size_t bytes, Job job) {
    User& user = m_users[sender.user];
    if (user.jobs >= m_bounds.jobsOfUser || (user.jobs > 0 && user.bytes + bytes > m_bounds.bytesOfUser)) {
        return false;
    }
    const auto found = std::find_if(user.turns.begin(), user.turns.end(),
                                    [&](const Connection& one) { return one.name == sender.connection; });
    Connection& connection =
        found != user.turns.end() ? *found : user.turns.emplace_back(Connection{sender.connection, {}});
    connection.jobs.push_back({bytes, std::move(job)});
    user.bytes += bytes;
    if (user.jobs++ == 0) {
        m_turns.push_back(sender.user);
    }
    return true;
}

std::deque<uid_t>::const_iterator FairQueue::nextReady() const {
    return std::find_if(m_turns.begin(), m_turns.end(),
                        [this](uid_t user) { return m_users.at(user).running < m_bounds.runningOfUser; });
}

bool FairQueue::hasReady() const {
    return nextReady() != m_turns.end();
}

FairQueue::Taken FairQueue::take() {
    const auto turn = nextReady();
    const uid_t id = *turn;
    m_turns.erase(turn);
    User& user = m_users.at(id);
    Connection connection = std::move(user.turns.front());
    user.turns.pop_front();
    Waiting next = std::move(connection.jobs.front());
    connection.jobs.pop_front();
    --user.jobs;
    user.bytes -= next.bytes;
    ++user.running;
    if (!connection.jobs.empty()) {
        user.turns.push_back(std::move(connection));
    }
    if (user.jobs > 0) {
        m_turns.push_back(id);
    }
    return {id, std::move(next.job)};
}

void FairQueue::finished(uid_t user) {
    const auto found = m_users.find(user);
    --found->second.running;
    if (found->second.running == 0 && found->second.jobs == 0) {
        m_users.erase(found);
    }
}

} // namespace HVB::detail
