// The two messages of the decrypt exchange.
#include "apps/sentrelctl/clients/DecryptExchange.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <gtest/gtest.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

using namespace std::string_literals;

constexpr std::size_t kBlock = 1024;

template <class Operation>
std::pair<ExitCode, std::string> failureOf(Operation operation) {
    try {
        operation();
    } catch (const Failure& failure) {
        return {failure.code(), failure.line()};
    }
    return {ExitCode::Done, ""};
}

TEST(ADecryptRequest, IsTheMarkTheTextAndANul) {
    EXPECT_EQ(decryptRequest("AbC+/="), "Decrypt AbC+/=\0"s);
}

TEST(ADecryptRequest, FillsOneBlockAtMost) {
    EXPECT_EQ(decryptRequest(std::string(1015, 'x')), "Decrypt " + std::string(1015, 'x') + "\0"s);
    EXPECT_EQ(decryptRequest(std::string(1015, 'x')).size(), kBlock);
    EXPECT_EQ(failureOf([] { decryptRequest(std::string(1016, 'x')); }),
              std::pair(ExitCode::BadUsage, "sentrelctl: bad usage: encrypted text: it has 1016 bytes, the daemon "
                                            "takes 1015. Give the text as it was stored."s));
}

TEST(ADecryptRequest, IsRefusedForATextThatWouldBeCut) {
    EXPECT_EQ(failureOf([] { decryptRequest("a\0b"s); }).first, ExitCode::BadUsage);
    EXPECT_EQ(failureOf([] { decryptRequest(""); }).first, ExitCode::BadUsage);
}

TEST(ADecryptReply, HoldsTheTextUpToItsPadding) {
    EXPECT_EQ(decryptedText("secret"s + std::string(kBlock - 6, '\0'), "socket"), "secret");
    EXPECT_EQ(decryptedText(std::string(kBlock, 's'), "socket"), std::string(kBlock, 's'));
}

TEST(ADecryptReply, IsAFailureWhenItIsEmpty) {
    EXPECT_EQ(failureOf([] { decryptedText(std::string(kBlock, '\0'), "socket"); }),
              std::pair(ExitCode::Failed,
                        "sentrelctl: cannot decrypt: socket: the answer is empty. Either this machine has no "
                        "management agent, or the text was not encrypted with its key."s));
}

TEST(ADecryptReply, IsAFailureWhenItIsNotWhole) {
    EXPECT_EQ(failureOf([] { decryptedText(std::string(kBlock - 1, 's'), "socket"); }),
              std::pair(ExitCode::Failed, "sentrelctl: cannot decrypt: socket: the daemon closed after 1023 of 1024 "
                                          "bytes. The trace log of sentreld may tell why."s));
    EXPECT_EQ(failureOf([] { decryptedText("", "socket"); }).first, ExitCode::Failed);
}

} // namespace
} // namespace Sentrel::ctl
