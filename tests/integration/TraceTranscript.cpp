#include "tests/integration/TraceTranscript.h"

#include <fstream>
#include <limits>
#include <regex>
#include <set>
#include <stdexcept>

namespace testing_support {
namespace {

/// How many lines of each voice have come. Lines that two voices share leave several ways to have come to a point.
using Progress = std::vector<std::size_t>;

bool isComplete(const Voice& voice, std::size_t came) {
    const std::size_t rounds = came / voice.lines.size();
    return came % voice.lines.size() == 0 && rounds >= voice.atLeast && rounds <= voice.atMost;
}

/// The line that a voice writes next; none when it is done.
const std::string* nextOf(const Voice& voice, std::size_t came) {
    const bool isDone = came / voice.lines.size() >= voice.atMost;
    return isDone ? nullptr : &voice.lines[came % voice.lines.size()];
}

std::set<Progress> after(const std::set<Progress>& before, const std::string& line, const Step& step) {
    std::set<Progress> ways;
    for (const Progress& progress : before) {
        for (std::size_t at = 0; at < step.voices.size(); ++at) {
            const std::string* const next = nextOf(step.voices[at], progress[at]);
            if (next != nullptr && *next == line) {
                Progress further = progress;
                ++further[at];
                ways.insert(std::move(further));
            }
        }
    }
    return ways;
}

std::string expectations(const Progress& progress, const Step& step) {
    std::string text;
    for (std::size_t at = 0; at < step.voices.size(); ++at) {
        const std::string* const next = nextOf(step.voices[at], progress[at]);
        if (next != nullptr) {
            text += "\n  " + step.voices[at].name + ": " + *next;
        }
    }
    return text.empty() ? "\n  nothing" : text;
}

bool isComplete(const Progress& progress, const Step& step) {
    for (std::size_t at = 0; at < step.voices.size(); ++at) {
        if (!isComplete(step.voices[at], progress[at])) {
            return false;
        }
    }
    return true;
}

Voice voiceOf(const std::string& heading) {
    static const std::regex counted(R"((.*) \((\d+) to (\d+) times\))");
    static const std::regex anyTime(R"((.*) \(at any time\))");
    std::smatch parts;
    if (std::regex_match(heading, parts, counted)) {
        return {parts[1], {}, std::stoul(parts[2]), std::stoul(parts[3])};
    }
    if (std::regex_match(heading, parts, anyTime)) {
        return {parts[1], {}, 0, std::numeric_limits<std::size_t>::max()};
    }
    return {heading, {}, 1, 1};
}

/// Puts the lines of a transcript together.
class Assembly {
public:
    void take(const std::string& line) {
        if (line.starts_with("== ")) {
            m_steps.push_back({line.substr(3), m_steps.empty() ? std::vector<Voice>() : lasting()});
            m_isInVoice = false;
        } else if (line.starts_with("-- ")) {
            step().voices.push_back(voiceOf(line.substr(3)));
            m_isInVoice = true;
        } else if (m_isInVoice) {
            step().voices.back().lines.push_back(line);
        } else {
            throw std::runtime_error("a line outside of a voice: " + line);
        }
    }

    std::vector<Step> steps() const {
        for (const Step& each : m_steps) {
            for (const Voice& voice : each.voices) {
                if (voice.lines.empty()) {
                    throw std::runtime_error("a voice without lines: " + voice.name);
                }
            }
        }
        return m_steps;
    }

private:
    Step& step() {
        if (m_steps.empty()) {
            throw std::runtime_error("a voice outside of a step");
        }
        return m_steps.back();
    }
    std::vector<Voice> lasting() {
        std::vector<Voice> voices;
        for (const Voice& voice : step().voices) {
            if (voice.atLeast == 0) {
                voices.push_back(voice);
            }
        }
        return voices;
    }

    std::vector<Step> m_steps;
    bool m_isInVoice = false;
};

} // namespace

std::optional<std::string> whyNot(const std::vector<std::string>& lines, const Step& step) {
    std::set<Progress> ways{Progress(step.voices.size())};
    for (std::size_t at = 0; at < lines.size(); ++at) {
        std::set<Progress> further = after(ways, lines[at], step);
        if (further.empty()) {
            return "line " + std::to_string(at + 1) + " of \"" + step.name + "\" is\n  " + lines[at] +
                   "\nwhere there may be" + expectations(*ways.begin(), step);
        }
        ways = std::move(further);
    }
    for (const Progress& progress : ways) {
        if (isComplete(progress, step)) {
            return std::nullopt;
        }
    }
    return "after " + std::to_string(lines.size()) + " lines \"" + step.name + "\" still lacks" +
           expectations(*ways.begin(), step);
}

std::vector<Step> readTranscript(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("there is no transcript " + path);
    }
    Assembly assembly;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && !line.starts_with('#')) {
            assembly.take(line);
        }
    }
    return assembly.steps();
}

} // namespace testing_support
