#include "apps/sentrelctl/terminal/Input.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/FileReading.h"

#include <cerrno>
#include <system_error>

namespace Sentrel::ctl {

std::string contentOf(const std::string& name, int inputFd, std::size_t limit) {
    const std::string shown = name == "-" ? "standard input" : name;
    try {
        return readFileOrInput(name, inputFd, limit);
    } catch (const std::system_error& error) {
        const int number = error.code().value();
        if (number == EFBIG) {
            throw Failure(ExitCode::BadUsage, "too much input", shown, "at most " + std::to_string(limit) + " bytes",
                          "");
        }
        throw fileFailure("cannot read", shown, number);
    }
}

} // namespace Sentrel::ctl
