// One loop that waits for six descriptors: the browser's two, the settings, the requests for access, the daemon, and
// the end. Nothing in it waits for anything else, so a browser that does not read, a hub that hangs and an event socket
// that somebody holds stall only what is theirs.
//
// What must stay so:
// - While the browser does not read its answers, no more questions are read. The settings go on all the same: of those
//   that it did not fetch it gets the last ones.
// - Settings are not made as long as others are still leaving in pieces, so that they arrive in order.
#include "browser/host/HostLoop.h"

#include "base/PrintableText.h"
#include "browser/host/AccessDesk.h"
#include "browser/host/Framing.h"
#include "browser/host/HostOutput.h"
#include "browser/host/HostSession.h"
#include "browser/host/ReportQueue.h"
#include "browser/host/SettingsSource.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>
#include <system_error>

namespace Sentrel::host {
namespace {

using std::chrono::steady_clock;
using Moment = steady_clock::time_point;

/// Answers that wait for the browser, in bytes, before its questions wait.
constexpr std::size_t kMaxWaitingAnswers = std::size_t{4} << 20U;
constexpr std::chrono::seconds kFarewell{2};
constexpr std::chrono::seconds kBetweenRefreshes{1};

void tellLine(const std::string& line) {
    std::fprintf(stderr, "sentrel-browser-host: %s.\n", text::printable(line).c_str());
}

class HostLoop {
public:
    HostLoop(const HostPlaces& places, ratings::RatingProvider* rater)
        : m_places(places), m_output(places.output), m_reports(places.eventSocket, tellLine), m_desk(places.hubSocket),
          m_session(places.release, rater,
                    {[this](std::string message) { m_output.put(std::move(message)); },
                     [this](const STEventData& record) {
                         m_reports.add(record);
                         return m_reports.lost();
                     },
                     [this](AccessQuestion question) { return m_desk.add(std::move(question)); }}),
          m_source(places.hubSocket, SettingsCache(places.cacheFile), tellLine),
          m_nextRefresh(rater != nullptr ? steady_clock::now() : Moment::max()) {}

    bool run();

private:
    enum Place : std::size_t { Input, Output, Stop, Settings, Access, Daemon, Count };

    Moment nextMoment() const { return std::min({m_reports.until(), m_nextRefresh, m_end.value_or(Moment::max())}); }
    bool isOver() const;
    void tellLosses() const;
    void waitForWork();
    void work();
    void readInput();
    void takeMessages();
    void tellSettings();
    void writeOutput();
    void end();

    const HostPlaces& m_places;
    HostOutput m_output;
    ReportQueue m_reports;
    AccessDesk m_desk;
    HostSession m_session;
    SettingsSource m_source;
    FrameReader m_frames;
    std::array<pollfd, Count> m_polled{};
    Moment m_nextRefresh;        ///< of the ratings
    std::optional<Moment> m_end; ///< when it is over in any case; set once nothing more is read
    bool m_canWrite = true;
    bool m_isWell = true;
};

bool HostLoop::run() {
    while (!isOver()) {
        waitForWork();
        work();
    }
    tellLosses();
    return m_isWell;
}

void HostLoop::tellLosses() const {
    if (m_reports.lost() > 0) {
        tellLine(fmt::format("{} reports were dropped for want of room", m_reports.lost()));
    }
    if (!m_reports.isEmpty()) {
        tellLine(fmt::format("{} reports were not delivered; the daemon may still read the first of them",
                             m_reports.unread()));
    }
}

bool HostLoop::isOver() const {
    const bool isDone = m_reports.isEmpty() && (m_output.isDone() || !m_canWrite);
    return m_end && (isDone || steady_clock::now() >= *m_end);
}

/// Sleeps until there is something to do.
void HostLoop::waitForWork() {
    const bool reads = !m_end && m_output.waiting() < kMaxWaitingAnswers;
    const bool writes = m_canWrite && !m_output.isDone();
    m_polled[Input] = {reads ? m_places.input : -1, POLLIN, 0};
    m_polled[Output] = {m_canWrite ? m_output.fd() : -1, static_cast<short>(writes ? POLLOUT : 0), 0};
    m_polled[Stop] = {m_end ? -1 : m_places.stopFd, POLLIN, 0};
    m_polled[Settings] = {m_source.fd(), POLLIN, 0};
    m_polled[Access] = {m_desk.fd(), POLLIN, 0};
    m_polled[Daemon] = m_reports.descriptor();
    int timeout = -1;
    if (const Moment next = nextMoment(); next != Moment::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - steady_clock::now()).count();
        timeout = static_cast<int>(std::max<std::int64_t>(left, 0));
    }
    if (::poll(m_polled.data(), m_polled.size(), timeout) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::system_category(), "cannot wait");
    }
}

void HostLoop::work() {
    if (m_polled[Settings].revents != 0) {
        m_session.hold(m_source.take());
        if (m_source.takeRequestsChanged() && m_output.waiting() < kMaxWaitingAnswers) {
            m_session.tellRequestsChanged(); // a browser that reads nothing looks again when it does
        }
    }
    if (m_polled[Access].revents != 0) {
        for (const AccessAnswer& answer : m_desk.take()) {
            m_session.tell(answer);
        }
    }
    if (steady_clock::now() >= m_nextRefresh) {
        m_session.refreshRatings();
        m_nextRefresh = steady_clock::now() + kBetweenRefreshes;
    }
    if (m_polled[Stop].revents != 0) {
        end();
    } else if (m_polled[Input].revents != 0) {
        readInput();
    }
    if ((m_polled[Output].revents & POLLERR) != 0) {
        m_canWrite = false; // nobody reads any more
        end();
    }
    tellSettings();
    writeOutput();
    m_reports.proceed();
}

void HostLoop::readInput() {
    std::array<char, std::size_t{64} << 10U> bytes; // NOLINT: filled by read
    const ssize_t got = ::read(m_places.input, bytes.data(), bytes.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (got > 0) {
        m_frames.add({bytes.data(), static_cast<std::size_t>(got)});
        takeMessages();
        return;
    }
    if (got < 0 || !m_frames.isBetweenMessages()) {
        tellLine(got < 0 ? "cannot read from the browser: " + std::system_category().message(errno)
                         : "the input ends within a message");
        m_isWell = false;
    }
    end();
}

void HostLoop::takeMessages() {
    try {
        while (const std::optional<std::string> message = m_frames.next()) {
            m_session.take(*message);
        }
    } catch (const FramingError& error) {
        tellLine(error.what());
        m_isWell = false;
        end();
    }
}

void HostLoop::tellSettings() {
    for (const auto owed : {&HostSession::owedSettings, &HostSession::owedRatings}) {
        if (m_canWrite && !m_output.hasLong() && m_output.waiting() < kMaxWholeBytes) {
            if (std::optional<std::string> message = (m_session.*owed)()) {
                m_output.put(*std::move(message));
            }
        }
    }
}

void HostLoop::writeOutput() {
    try {
        if (m_canWrite) {
            m_output.write();
        }
    } catch (const std::system_error& error) {
        if (error.code().value() != EPIPE) {
            tellLine(error.what());
        }
        m_canWrite = false;
        end();
    }
}

/// Reads nothing more.
void HostLoop::end() {
    if (!m_end) {
        m_end = steady_clock::now() + kFarewell;
    }
}

} // namespace

bool serveBrowser(const HostPlaces& places, ratings::RatingProvider* rater) {
    return HostLoop(places, rater).run();
}

} // namespace Sentrel::host
