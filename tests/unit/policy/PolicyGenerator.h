// Policies for a test: most are nearly right, and everything that can be odd in one is odd in some.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "policy/PolicyKeys.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace testing_support {

/// Makes policies, the same ones for the same seed everywhere.
class PolicyGenerator {
public:
    explicit PolicyGenerator(std::uint32_t seed) : m_random(seed) {}

    HVBEnterprise::SectionsHandle next();

private:
    using Key = Sentrel::policy::PolicyKey;

    /// Below @p end.
    std::size_t below(std::size_t end) { return m_random() % end; }
    bool once(std::size_t in) { return below(in) == 0; }
    template <class Each>
    const Each& oneOf(const std::vector<Each>& all) {
        return all[below(all.size())];
    }

    void put(const Key& key, const std::wstring& value, int index = 0);
    void putNumber(const Key& key, int usual);
    void putCount(const Key& key, std::size_t entries);
    void putGeneral();
    void putRanges();
    void putContent();
    void putCodes(std::size_t categories);
    void putSites();

    std::wstring number(int usual);
    std::wstring text();
    std::wstring ofBytes(std::size_t bytes);
    std::wstring digits(std::size_t length);
    std::wstring longCodes(std::size_t categories);

    std::mt19937 m_random;
    HVBEnterprise::SectionsHandle m_document;
};

} // namespace testing_support
