#include "tests/unit/events/PrivateRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace testing_support {
namespace {

/// Makes the directory before the first test, when nothing has asked for the install root yet.
class RootEnvironment : public testing::Environment {
public:
    void SetUp() override {
        char name[] = "/tmp/str.XXXXXX";
        if (mkdtemp(name) == nullptr) {
            throw std::runtime_error("no directory for the install root");
        }
        path = name;
        setenv("SENTREL_INSTALL_ROOT", name, 1);
    }
    void TearDown() override { std::filesystem::remove_all(path); }

    std::string path;
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
