// What of an exception reaches an error reply. All real; no bus.
#include "platform/hvbhelpers/ErrorText.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

template <class Exception>
std::string textOf(const Exception& exception) {
    try {
        throw exception;
    } catch (...) {
        return HVB::detail::currentExceptionText();
    }
}

TEST(AnExceptionsText, IsItsMessageWhateverItsFamily) {
    EXPECT_EQ(textOf(HVB::HVBException(-1, "hub")), "hub");
    EXPECT_EQ(textOf(Sentrel::VXException(-1, "daemon")), "daemon");
    EXPECT_EQ(textOf(std::runtime_error("library")), "library");
    EXPECT_EQ(textOf(42), "an exception of unknown type");
}

TEST(AnExceptionsText, HasNothingThatAMessageCannotCarry) {
    EXPECT_EQ(textOf(std::runtime_error("Caf\xC3\xA9\n\xFF")), "Caf????");
    EXPECT_EQ(textOf(std::runtime_error(std::string(5000, 'x'))).size(), HVB::detail::kMaxErrorText);
}

} // namespace
