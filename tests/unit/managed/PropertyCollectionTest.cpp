// What the module tells the central server about itself. Real: the hub's configuration file.
#include "managed/VXPropertyCollectionImpl.h"
#include "managed/VersionTexts.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/managed/PolicyFixture.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace testing_support {
namespace {

using Properties = HVBEnterprise::SectionsHandle;

class APropertyCollection : public PolicyFixture {
protected:
    APropertyCollection() {
        std::filesystem::create_directories(directory());
        write("<HVVersion>10.7</HVVersion><BuildNumber>123</BuildNumber><PatchVersion>P1</PatchVersion>"
              "<Hotfixes>HF2</Hotfixes>");
        setenv("LC_ALL", "pt_BR.UTF-8", 1);
    }

    std::string directory() const { return root.path() + "/usr/local/Orvanta/hvb/config/Sentrel"; }
    std::string file() const { return directory() + "/HVConfig.xml"; }
    void write(const std::string& elements) const {
        writeFile(file(), "<HVConfiguration>" + elements + "</HVConfiguration>");
    }

    Properties collected(bool full = true) {
        Properties properties;
        EXPECT_TRUE(collection.collectProperties(full, properties));
        return properties;
    }
    static std::wstring value(const Properties& properties, const std::wstring& section, const std::wstring& key) {
        std::wstring found = L"(none)";
        properties.getPropValue(section, key, found);
        return found;
    }
    static std::wstring text(wchar_t* fetched) {
        const std::unique_ptr<wchar_t[]> owned(fetched);
        return owned ? owned.get() : L"(null)";
    }

    Sentrel::VXPropertyCollectionImpl collection;
};

TEST_F(APropertyCollection, TellsEverySectionWhenAllIsWanted) {
    const Properties::Sections expected{{L"CustomProps", {{L"bComplianceStatus", L"1"}}},
                                        {L"General",
                                         {{L"LoadableIE", L"1"},
                                          {L"LoadableFF", L"1"},
                                          {L"LoadableCH", L"2"},
                                          {L"LoadableSafari", L"2"},
                                          {L"szInstallDir", L"/usr/local/Orvanta/Sentrel"},
                                          {L"Language", L"pt-BR"},
                                          {L"szProductVer", L" 10.7.123"},
                                          {L"Patch", L"P1"},
                                          {L"Hotfixes", L"HF2"}}},
                                        {L"Options", {{L"bSTEnabled", L"1"}}}};
    EXPECT_EQ(collected().sections(), expected);
}

TEST_F(APropertyCollection, TellsTheGeneralSectionAloneOtherwise) {
    const Properties properties = collected(false);
    EXPECT_EQ(properties.sections().size(), 1u);
    EXPECT_EQ(properties.sections().at(L"General").size(), 9u);
}

TEST_F(APropertyCollection, DoesNotComplyWhenThePolicyWantsAnotherState) {
    controller().agentWrapper()->setPolicyReceived();
    controller().setPolicyEnabled(false);
    const Properties properties = collected();
    EXPECT_EQ(value(properties, L"CustomProps", L"bComplianceStatus"), L"0");
    EXPECT_EQ(value(properties, L"Options", L"bSTEnabled"), L"1");
    controller().setPolicyEnabled(true);
    EXPECT_EQ(value(collected(), L"CustomProps", L"bComplianceStatus"), L"1");
}

TEST_F(APropertyCollection, CompliesBeforeAnyPolicyWhateverItsState) {
    controller().setPolicyEnabled(true);
    store.values.m_bEnable = false;
    const Properties properties = collected();
    EXPECT_EQ(value(properties, L"CustomProps", L"bComplianceStatus"), L"1");
    EXPECT_EQ(value(properties, L"Options", L"bSTEnabled"), L"0");
}

TEST_F(APropertyCollection, TellsAnEmptyPatchForABlankAnEmptyAndAMissingElement) {
    for (const char* patch : {"<PatchVersion> </PatchVersion>", "<PatchVersion></PatchVersion>", ""}) {
        write(std::string("<HVVersion>10.7</HVVersion><BuildNumber>123</BuildNumber><Hotfixes>HF2</Hotfixes>") + patch);
        EXPECT_EQ(value(collected(), L"General", L"Patch"), L"") << patch;
    }
    write("<HVVersion>10.7</HVVersion><BuildNumber>123</BuildNumber>");
    EXPECT_EQ(value(collected(), L"General", L"Hotfixes"), L"");
}

TEST_F(APropertyCollection, KeepsWhatItHasWhenTheConfigurationCannotBeOpened) {
    std::filesystem::remove(file());
    const Lines lines = leveled([this] {
        const Properties properties = collected();
        EXPECT_EQ(value(properties, L"General", L"Language"), L"pt-BR");
        EXPECT_EQ(properties.sections().at(L"General").size(), 6u);
        EXPECT_EQ(properties.sections().size(), 2u);
    });
    EXPECT_EQ(lines, (Lines{"1 VXPropertyCollectionImpl::collectProperties - Entered", "1 Other exception"}));
}

TEST_F(APropertyCollection, IsTraced) {
    EXPECT_EQ(leveled([this] { collected(); }),
              (Lines{"1 VXPropertyCollectionImpl::collectProperties - Entered",
                     "3 VXPropertyCollectionImpl::getVersionString - Build Number = 123",
                     "3 VXPropertyCollectionImpl::getVersionString - Version = 10.7",
                     "3 VXPropertyCollectionImpl::collectProperties - Enable Status = 1",
                     "3 VXPropertyCollectionImpl::collectProperties - Getting Patch version",
                     "2 VXPropertyCollectionImpl::getPatchVersion - Patch Version = P1",
                     "3 VXPropertyCollectionImpl::collectProperties - Getting Hotfix version",
                     "2 VXPropertyCollectionImpl::getHFVersion - Hotfixes = HF2",
                     "1 VXPropertyCollectionImpl::collectProperties - Exiting"}));
}

TEST_F(APropertyCollection, SaysThatEverySoftwareIsThere) {
    EXPECT_TRUE(collection.isSoftwareExists(L""));
    EXPECT_TRUE(collection.isSoftwareExists(L"anything"));
}

using AVersionText = APropertyCollection;

TEST_F(AVersionText, IsWhatCouldBeRead) {
    write("<HVVersion>10.7</HVVersion>");
    EXPECT_EQ(text(Sentrel::getVersionString()), L" .") << "the build number is asked for first";
    write("<BuildNumber>123</BuildNumber>");
    EXPECT_EQ(text(Sentrel::getVersionString()), L" .123");
}

TEST_F(AVersionText, SaysWhatCouldNotBeRead) {
    write("");
    EXPECT_EQ(leveled([] {
                  text(Sentrel::getVersionString());
                  text(Sentrel::getPatchVersion());
                  text(Sentrel::getHFVersion());
              }),
              (Lines{"2 VXPropertyCollectionImpl::getVersionString - Recieved xml exception while fetching build num "
                     "and version",
                     "2 getPatchVersion - Recieve xml exception while Patch version",
                     "2 VXPropertyCollectionImpl::getHFVersion - Recieved xml exception while HF version"}));
}

TEST_F(AVersionText, IsCutAtItsRoomAndTerminated) {
    const std::string longText(150, '7');
    write("<HVVersion>" + longText + "</HVVersion><BuildNumber>1</BuildNumber><PatchVersion>" + longText +
          "</PatchVersion>");
    EXPECT_EQ(text(Sentrel::getVersionString()), L" " + std::wstring(98, L'7'));
    EXPECT_EQ(text(Sentrel::getPatchVersion()), std::wstring(99, L'7'));
}

TEST_F(AVersionText, ThrowsWithoutTheFile) {
    std::filesystem::remove(file());
    EXPECT_THROW(text(Sentrel::getVersionString()), std::runtime_error);
    EXPECT_THROW(text(Sentrel::getPatchVersion()), std::runtime_error);
    EXPECT_THROW(text(Sentrel::getHFVersion()), std::runtime_error);
}

} // namespace
} // namespace testing_support
