// The names of what the doctor finds.
#pragma once

#include <array>
#include <string_view>

namespace Sentrel::ctl {

/// Every name of a finding, in the order of docs/troubleshooting.md, which has a section for each. They are an
/// interface: they are added to, never changed, and none is given another meaning.
inline constexpr std::array kFindings{
    std::string_view("directory-missing"),
    std::string_view("directory-no-directory"),
    std::string_view("directory-open"),
    std::string_view("directory-unreachable"),
    std::string_view("directory-owner"),
    std::string_view("disk-full"),
    std::string_view("disk-low"),
    std::string_view("disk-read-only"),
    std::string_view("bus-configuration-missing"),
    std::string_view("bus-configuration-no-file"),
    std::string_view("bus-configuration-open"),
    std::string_view("bus-configuration-foreign"),
    std::string_view("bus-configuration-group"),
    std::string_view("bus-configuration-changed"),
    std::string_view("module-configuration-missing"),
    std::string_view("module-configuration-unreadable"),
    std::string_view("module-configuration-unusable"),
    std::string_view("module-configuration-incomplete"),
    std::string_view("debug-switch-stuck"),
    std::string_view("trace-levels-malformed"),
    std::string_view("trace-levels-incomplete"),
    std::string_view("trace-levels-password"),
    std::string_view("enrolment-open"),
    std::string_view("enrolment-wrong"),
    std::string_view("enrolment-secret"),
    std::string_view("settings-missing"),
    std::string_view("settings-no-file"),
    std::string_view("settings-owner"),
    std::string_view("settings-open"),
    std::string_view("settings-readable"),
    std::string_view("settings-immutable"),
    std::string_view("settings-tables-missing"),
    std::string_view("settings-foreign"),
    std::string_view("settings-damaged"),
    std::string_view("settings-value"),
    std::string_view("settings-key"),
    std::string_view("host-name-silent"),
    std::string_view("host-name-unresolved"),
    std::string_view("bus-socket-missing"),
    std::string_view("bus-socket-no-socket"),
    std::string_view("bus-absent"),
    std::string_view("bus-silent"),
    std::string_view("bus-refuses"),
    std::string_view("bus-policy-asks"),
    std::string_view("bus-policy-signals"),
    std::string_view("bus-policy-unreachable"),
    std::string_view("hvbd-absent"),
    std::string_view("hvbd-silent"),
    std::string_view("log-store-missing"),
    std::string_view("log-store-no-file"),
    std::string_view("log-store-open"),
    std::string_view("log-store-owner"),
    std::string_view("log-store-immutable"),
    std::string_view("log-store-damaged"),
    std::string_view("log-store-unusable"),
    std::string_view("request-store-no-file"),
    std::string_view("request-store-open"),
    std::string_view("request-store-owner"),
    std::string_view("request-store-immutable"),
    std::string_view("request-store-damaged"),
    std::string_view("request-store-unusable"),
    std::string_view("rating-lists-no-file"),
    std::string_view("rating-lists-open"),
    std::string_view("rating-lists-unreadable"),
    std::string_view("rating-lists-unusable"),
    std::string_view("rating-lists-old"),
    std::string_view("sentreld-absent"),
    std::string_view("sentreld-silent"),
    std::string_view("health-configuration"),
    std::string_view("health-not-well"),
    std::string_view("broker-unresolved"),
    std::string_view("broker-away"),
    std::string_view("broker-silent"),
    std::string_view("broker-unconnected"),
    std::string_view("event-socket-missing"),
    std::string_view("event-socket-no-socket"),
    std::string_view("event-socket-closed"),
    std::string_view("event-socket-unheard"),
    std::string_view("event-socket-held"),
    std::string_view("pid-file-missing"),
    std::string_view("pid-file-gone"),
    std::string_view("pid-file-garbled"),
    std::string_view("pid-file-stale"),
    std::string_view("pid-file-other"),
    std::string_view("two-daemons"),
    std::string_view("older-daemon"),
    std::string_view("private-windows-undecided"),
    std::string_view("probe-event"),
    std::string_view("probe-lock"),
    std::string_view("check-failed"),
};

/// The name of a finding, which the compiler looks up in the list above; empty where nothing was found.
/// Threads: a plain value. Owner: its diagnosis.
class FindingId {
public:
    FindingId() = default;
    consteval FindingId(const char* name) : m_name(listed(name)) {}

    constexpr std::string_view name() const { return m_name; }

private:
    static constexpr std::string_view listed(std::string_view name) {
        for (const std::string_view each : kFindings) {
            if (each == name) {
                return each;
            }
        }
        throw "no such finding"; // which no constant expression may do
    }

    std::string_view m_name;
};

} // namespace Sentrel::ctl
