// A decision on a page in words: what was looked at, and what decided.
#pragma once

#include "apps/sentrelctl/decisions/PolicyRuling.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "browser/decision/PageDecision.h"

#include <string>

namespace Sentrel::ctl {

/// A decision with everything that its words need. Threads: a plain value. Owner: a local; what it refers to outlives
/// it.
struct ExplainedDecision {
    const browsing::PageRules& rules;
    const browsing::SiteStanding& standing;
    const browsing::PageDecision& decision;
    const std::optional<settings::MachinePolicy>& policy;
    std::string ratedBy{}; ///< name of the list that rated the site; empty when none did
};

/// What a policy would have to set to rule this decision: as rulingOf takes it.
std::string_view ruledSetting(const browsing::PageDecision& decision);

/// The decision, then a row for each stage that was looked at; the one that decided is marked.
std::string decisionText(const ExplainedDecision& explained, const Palette& palette);

/// The decision in one line, with the stage that decided.
std::string decisionLine(const browsing::PageDecision& decision, const Palette& palette);

/// The same as decisionText for programs.
Json decisionJson(const ExplainedDecision& explained);

} // namespace Sentrel::ctl
