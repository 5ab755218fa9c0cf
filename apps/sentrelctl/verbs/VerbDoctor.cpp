// sentrelctl doctor: what is wrong with this installation, and how to mend it.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/doctor/Doctor.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <array>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

struct DoctorOptions {
    double timeout = 2;
    bool probe = false;
};

void doctor(Session& session, const DoctorOptions& options) {
    std::vector<Diagnosis> diagnoses;
    Json list = Json::array();
    for (const Check& check : allChecks(options.probe)) {
        diagnoses.push_back(examined(check, options.timeout));
        if (session.json == JsonMode::Off) { // at once: on a broken machine some take their time
            session.out.write(diagnosisText(check.name, diagnoses.back(), session.palette));
        }
        list.push_back(diagnosisJson(check.name, diagnoses.back()));
    }
    const std::size_t failed = countOf(diagnoses, Verdict::Failed);
    session.out.write(session.json == JsonMode::Off
                          ? summaryText(diagnoses)
                          : jsonText(Json{{"ok", failed == 0}, {"checks", list}}, session.json));
    if (failed > 0) {
        throw Failure(ExitCode::Failed, "something is wrong with this installation", "",
                      fmt::format("{} of {} checks failed", failed, diagnoses.size()),
                      "Mend the first of them, then ask again: others may come from it");
    }
}

Work describeDoctor(OptionSet& set, Session& session) {
    const auto options = std::make_shared<DoctorOptions>();
    set.addTimeout(options->timeout);
    set.addFlag("--probe", options->probe,
                "Also send a marked record and look for it in the log, and take the settings file's write lock for a "
                "moment");
    return [options, &session] { doctor(session, *options); };
}

} // namespace

Verbs doctorVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "doctor",
         "Checks directories, files, bus and processes of this installation, and says what is "
         "wrong and how to mend it. It changes nothing without --probe, and needs nothing that "
         "runs. Root sees the most. Each finding has a name, in brackets below it, under which "
         "docs/troubleshooting.md says more.",
         "  sentrelctl doctor\n"
         "  sentrelctl doctor --probe\n"
         "  sentrelctl doctor --json=short | jq '.checks[] | select(.result == \"failed\")'",
         describeDoctor},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
