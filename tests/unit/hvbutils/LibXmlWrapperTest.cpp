// The daemon's access to its configuration file: the exact forms of the operations, and that each does its work. The
// file and the parser are real; XmlFileTest.cpp has the many cases.
#include "platform/hvbutils/LibXmlWrapper.h"

#include "platform/hvbutils/XmlFile.h"
#include "tests/unit/hvbutils/ConfigFile.h"

#include <type_traits>

namespace {

// A library that stands in this one's place has these and no other forms.
static_assert(std::is_constructible_v<LibXmlWrapper, std::string>);
static_assert(
    std::is_same_v<decltype(&LibXmlWrapper::getXPathStringValue), std::string (LibXmlWrapper::*)(const char*)>);
static_assert(std::is_same_v<decltype(&LibXmlWrapper::getXPathBoolValue), bool (LibXmlWrapper::*)(const char*)>);
static_assert(
    std::is_same_v<decltype(&LibXmlWrapper::setXPathElement), void (LibXmlWrapper::*)(const char*, const char*)>);
static_assert(std::is_same_v<decltype(&LibXmlWrapper::SaveToFile), bool (LibXmlWrapper::*)(char*)>);

TEST_F(AConfigFile, IsReadByTheDaemonsAccess) {
    LibXmlWrapper file(path);
    EXPECT_EQ(file.getXPathStringValue(kLevel), "information");
    EXPECT_TRUE(file.getXPathBoolValue("/HVConfiguration/SyslogEnable"));
}

TEST_F(AConfigFile, IsChangedAndSavedByTheDaemonsAccess) {
    LibXmlWrapper file(path);
    file.setXPathElement(kLevel, "debug");
    EXPECT_EQ(value(), "information");
    std::string target = path;
    EXPECT_TRUE(file.SaveToFile(target.data()));
    EXPECT_EQ(target, path);
    EXPECT_EQ(value(), "debug");
}

TEST_F(AConfigFile, FailsTheDaemonsAccessWhereItCannotBeUsed) {
    LibXmlWrapper file(path);
    EXPECT_THROW(file.getXPathStringValue("/nowhere"), LibXmlError);
    EXPECT_THROW(file.getXPathBoolValue(kLevel), LibXmlError);
    EXPECT_THROW(file.setXPathElement("/nowhere", "x"), LibXmlError);
    std::filesystem::remove(path);
    std::string target = path;
    EXPECT_FALSE(file.SaveToFile(target.data()));
    EXPECT_THROW(LibXmlWrapper{path}, LibXmlError);
}

} // namespace
