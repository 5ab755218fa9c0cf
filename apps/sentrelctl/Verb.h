// What a verb is: data that the command line reads, and the one function that describes its options.
#pragma once

#include "apps/sentrelctl/OptionSet.h"
#include "apps/sentrelctl/Session.h"

#include <functional>

namespace Sentrel::ctl {

/// What a verb does, once its options are read. Throws Failure or OutputClosed.
using Work = std::function<void()>;

/// Threads: any, it never changes. Owner: its table, for the life of the process.
struct Verb {
    const char* group; ///< the word in front of the name, empty when there is none
    const char* name;
    const char* description;
    const char* example; ///< shown below the help, each line with two blanks in front
    /// Adds the verb's options and returns its work.
    Work (*describe)(OptionSet& options, Session& session);
};

} // namespace Sentrel::ctl
