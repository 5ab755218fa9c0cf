// The sections that a module reads from and writes to.
#include "platform/hvbagent/AgentDocuments.h"

#include <gtest/gtest.h>

namespace {

using HVBEnterprise::PolicySetting;
using HVBEnterprise::SectionsHandle;

PolicySetting feature(const std::wstring& name) {
    PolicySetting setting;
    setting.m_productId = L"NODE_ST_1000";
    setting.m_featureId = name;
    setting.m_featureName = name;
    return setting;
}

/// Section "S" outside of features, in "F1" and in "F2".
class APolicysSections : public ::testing::Test {
protected:
    APolicysSections() {
        m_sections.insert(L"S", L"outside", L"0");
        m_sections.insertForFeature(L"F2", L"S", L"both", L"2");
        m_sections.insertForFeature(L"F1", L"S", L"both", L"1");
        m_sections.insertForFeature(L"F2", L"S", L"second", L"2");
    }
    SectionsHandle m_sections;
    std::wstring m_value = L"before";
};

TEST_F(APolicysSections, GiveAFeaturesOwnValueAlone) {
    EXPECT_TRUE(m_sections.getPropValue(feature(L"F2"), L"S", L"both", m_value));
    EXPECT_EQ(m_value, L"2");
    EXPECT_FALSE(m_sections.getPropValue(feature(L"F1"), L"S", L"outside", m_value));
    EXPECT_FALSE(m_sections.getPropValue(feature(L"F1"), L"S", L"second", m_value));
    EXPECT_FALSE(m_sections.getPropValue(feature(L"F3"), L"S", L"both", m_value));
    EXPECT_EQ(m_value, L"2");
}

TEST_F(APolicysSections, GiveTheFirstFeaturesValueWhenNoneIsNamed) {
    EXPECT_TRUE(m_sections.getPropValue(L"S", L"both", m_value));
    EXPECT_EQ(m_value, L"1");
    EXPECT_TRUE(m_sections.getPropValue(L"S", L"outside", m_value));
    EXPECT_EQ(m_value, L"0");
    EXPECT_FALSE(m_sections.getPropValue(L"T", L"both", m_value));
    EXPECT_FALSE(m_sections.getPropValue(L"S", L"none", m_value));
    EXPECT_EQ(m_value, L"0");
}

TEST_F(APolicysSections, PreferTheValueOutsideOfFeatures) {
    m_sections.insert(L"S", L"both", L"0");
    EXPECT_TRUE(m_sections.getPropValue(L"S", L"both", m_value));
    EXPECT_EQ(m_value, L"0");
}

TEST_F(APolicysSections, MergeTheSectionsOfOneName) {
    SectionsHandle::Section data{{L"stays", L"not"}};
    EXPECT_TRUE(m_sections.getSectionDataUsingSectionName(L"S", data));
    EXPECT_EQ(data, (SectionsHandle::Section{{L"both", L"1"}, {L"outside", L"0"}, {L"second", L"2"}}));
    EXPECT_FALSE(m_sections.getSectionDataUsingSectionName(L"T", data));
    EXPECT_EQ(data.size(), 3U);
}

TEST_F(APolicysSections, ReplaceAValueThatIsInsertedAgain) {
    m_sections.insert(L"S", L"outside", L"new");
    EXPECT_TRUE(m_sections.getPropValue(L"S", L"outside", m_value));
    EXPECT_EQ(m_value, L"new");
}

} // namespace
