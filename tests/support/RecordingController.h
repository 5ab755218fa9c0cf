// A preference controller without a file: it records what is asked of it in its order, answers as it is told and fails
// when it is told to. Link its object in the place of the store. Not real: everything behind the setters.
#pragma once

#include "hub/STPreferences.h"

#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// The lists that a policy handed over last, as they came.
/// Threads: one. Owner: the recording.
struct HandedLists {
    struct Categories {
        int enabled;
        int count;
        std::vector<wchar_t> actions;
        std::vector<std::wstring> names;
        int uncategorized;
    };
    struct Sites {
        int precedence;
        std::vector<std::wstring> urls;
        std::vector<int> actions;
    };
    std::optional<std::list<std::string>> ranges;
    std::optional<Categories> categories;
    std::optional<Sites> sites;
};

/// The recording behind Sentrel::STPreferenceController.
/// Threads: one. Owner: one a process, fresh for each test.
struct PreferenceRecording {
    static PreferenceRecording& instance();

    std::vector<std::string> calls;     ///< setters and signals with their values: "setEnableSentrel 1"
    HandedLists handed;                 ///< what the policy's list setters were given
    Sentrel::STPreferences values;      ///< what the getters give; the list's keys are plain here
    bool debugLogging = false;          ///< what its getter gives
    std::map<std::string, int> results; ///< by setter; 180000 unless it is named here
    std::function<void(const std::string& operation)> before; ///< what it throws leaves the operation
};

} // namespace testing_support
