// Tells the central server about this module.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"

#include <string>

namespace Sentrel {

/// Fills the properties of this module: compliance, browsers, directory, language, version, state.
/// Threads: the library's, one call at a time. Owner: the library.
class VXPropertyCollectionImpl : public HVBEnterprise::IAgentPropertyCollection {
public:
    /// @param full whether every section is filled, or "General" alone. A failure ends the filling; what is there
    /// stays.
    /// @return true.
    bool collectProperties(bool full, HVBEnterprise::SectionsHandle& properties) override;

    /// True, whatever is asked for.
    bool isSoftwareExists(const std::wstring softwareId) override;

    /// Adds a property, unless its section is not wanted.
    void addPropertyToSectionData(HVBEnterprise::SectionsHandle& properties, const std::wstring section,
                                  const std::wstring key, const std::wstring value);

private:
    void addProperties(HVBEnterprise::SectionsHandle& properties);

    bool m_bFullProps = true; // plain, single access
};

} // namespace Sentrel
