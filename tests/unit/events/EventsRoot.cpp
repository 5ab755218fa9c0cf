#include "tests/unit/events/EventsRoot.h"

#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestInstallRoot.h"

#include <gtest/gtest.h>

#include <memory>

namespace testing_support {
namespace {

/// Makes the directory before the first test, when nothing has asked for the install root yet.
class RootEnvironment : public testing::Environment {
public:
    void SetUp() override {
        m_directory = std::make_unique<TemporaryDirectory>();
        path = m_directory->path();
        setInstallRoot(path);
    }
    void TearDown() override { m_directory.reset(); }

    std::string path;

private:
    std::unique_ptr<TemporaryDirectory> m_directory;
};

RootEnvironment* const environment = [] {
    auto* made = new RootEnvironment;
    testing::AddGlobalTestEnvironment(made); // gtest deletes it
    return made;
}();

} // namespace

const std::string& privateRoot() {
    return environment->path;
}

} // namespace testing_support
