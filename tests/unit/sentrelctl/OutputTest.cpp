// Writing to descriptors that take everything, nothing, or a little at a time.
#include "apps/sentrelctl/terminal/Output.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Json.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

TEST(AnOutput, WritesAllOfATextThatThePipeTakesInParts) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const std::string text(1 << 20, 'x');
    std::string received;
    std::thread reader([&received, fd = ends[0]] {
        std::array<char, 4096> part{};
        for (ssize_t got = 0; (got = ::read(fd, part.data(), part.size())) > 0;) {
            received.append(part.data(), static_cast<std::size_t>(got));
        }
    });
    Output(ends[1]).write(text);
    ::close(ends[1]);
    reader.join();
    ::close(ends[0]);
    EXPECT_EQ(received, text);
}

TEST(AnOutput, SaysThatItIsClosedWhenNobodyReads) {
    ::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::close(ends[0]);
    EXPECT_THROW(Output(ends[1]).write("x"), OutputClosed);
    ::close(ends[1]);
}

TEST(AnOutput, SaysWhyItCannotWrite) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    try {
        Output(full).write("x");
        FAIL() << "written to a full device";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::Failed);
        EXPECT_EQ(failure.line(), "sentrelctl: cannot write the answer: output: No space left on device.");
    }
    ::close(full);
}

TEST(JsonText, IsAsciiOnOneLineOrIndented) {
    const Json value{{"b", "\x1b\xC3\xA9\x7f\xC2\x9B"}, {"a", 1}};
    EXPECT_EQ(jsonText(value, JsonMode::Short), "{\"b\":\"\\u001b\\u00e9\\u007f\\u009b\",\"a\":1}\n");
    EXPECT_EQ(jsonText(value, JsonMode::Pretty), "{\n    \"b\": \"\\u001b\\u00e9\\u007f\\u009b\",\n    \"a\": 1\n}\n");
}

} // namespace
} // namespace Sentrel::ctl
