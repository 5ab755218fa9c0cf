#include "tests/support/FakeHub.h"

#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <string_view>

namespace testing_support {

namespace bus = HVB::bus;

FakeHub::FakeHub(const std::string& socketPath, std::string error)
    : m_bus(bus::openBus(socketPath, patience())), m_error(std::move(error)) {
    m_wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    bus::check(sd_bus_add_object(m_bus.get(), nullptr, bus::kHubPath, &FakeHub::onCall, this), "add object");
    bus::check(sd_bus_request_name(m_bus.get(), bus::kHubName, 0), "request name");
    m_thread = std::thread([this] { run(); });
}

FakeHub::~FakeHub() {
    m_ending = true;
    (void)::eventfd_write(m_wake, 1);
    m_thread.join();
    ::close(m_wake);
}

void FakeHub::refuse(std::string error) {
    const std::lock_guard lock(m_mutex);
    m_error = std::move(error);
}

std::vector<FakeHub::Record> FakeHub::records() {
    const std::lock_guard lock(m_mutex);
    return m_records;
}

std::vector<FakeHub::Line> FakeHub::lines() {
    const std::lock_guard lock(m_mutex);
    return m_lines;
}

void FakeHub::run() {
    while (!m_ending) {
        const int processed = sd_bus_process(m_bus.get(), nullptr);
        if (processed < 0) {
            return; // the bus is gone, and with it this hub
        }
        if (processed == 0) {
            (void)bus::sleepUntilReady(bus::busWait(*m_bus), bus::Deadline::max(), m_wake);
        }
    }
}

int FakeHub::onCall(sd_bus_message* message, void* self, sd_bus_error*) {
    return static_cast<FakeHub*>(self)->take(*message);
}

int FakeHub::take(sd_bus_message& message) {
    const std::string_view member = sd_bus_message_get_member(&message);
    if (m_silent) {
        ++m_silentCalls;
        return 1;
    }
    const std::lock_guard lock(m_mutex);
    if (!m_error.empty() && member != bus::kLogMessageMember) {
        return sd_bus_reply_method_errorf(&message, m_error.c_str(), "refused");
    }
    if (member == bus::kLogMember || member == bus::kLogNumberedMember) {
        Record record;
        if (member == bus::kLogNumberedMember) {
            bus::check(sd_bus_message_read(&message, "tt", &record.instance, &record.number), "read");
        }
        bus::check(sd_bus_message_read(&message, "ii", &record.source, &record.type), "read");
        record.text = bus::readText(message);
        record.detail = bus::readText(message);
        bus::check(sd_bus_message_read(&message, "i", &record.count), "read");
        m_records.push_back(record);
        return sd_bus_reply_method_return(&message, bus::kLogReplySignature, std::uint64_t{m_records.size()});
    }
    if (member == bus::kLogMessageMember) {
        Line line;
        bus::check(sd_bus_message_read(&message, "i", &line.module), "read");
        line.moduleName = bus::readText(message);
        bus::check(sd_bus_message_read(&message, "ii", &line.type, &line.level), "read");
        line.line = bus::readText(message);
        m_lines.push_back(line);
        return sd_bus_reply_method_return(&message, nullptr);
    }
    return 0;
}

} // namespace testing_support
