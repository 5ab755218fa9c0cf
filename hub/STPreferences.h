// The snapshot of the preferences that travels between this module and its clients.
#pragma once

#include "base/ClassComp.h"
#include "hub/ArchiveText.h"
#include "hub/HubIds.h"

#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>
#include <cstdint>
#include <map>
#include <string>

namespace Sentrel {

/// URLs in the order in which they are to be looked at: 0 allows, any other value blocks.
using AllowBlockDetails = std::multimap<std::string, int, NPlgHelper::classcomp>;
/// Blocked content categories. Only the presence of a name counts.
using CategoryBlockDetails = std::map<std::string, int>;

/// A snapshot of the preferences, or, with the individual flag, of the one that its type names; the other members
/// then keep their defaults.
/// Threads: one at a time. Owner: whoever built it.
class STPreferences {
public:
    /// Adds @p details, their keys in base64, behind the entries that are there.
    void setAllowBlockDetails(const AllowBlockDetails& details);

    /// The entries with their keys as plain bytes. NULs at the end of a key are taken for padding and removed.
    /// @throws boost::archive::iterators::dataflow_exception for a key that is no base64.
    AllowBlockDetails getAllowBlockDetails() const;

    bool m_bEnable = true;
    bool m_bSafeSearch = false;
    std::int32_t m_redSiteAction = 3;
    std::int32_t m_yellowSiteAction = 2;
    std::int32_t m_unratedSiteAction = 1;
    STPrefType m_prefType = ST_ALL_PREFERENCES;
    bool m_bIndividual = false;
    bool m_bCategoryBlocking = false;
    bool m_bAllowOverBlock = false;
    AllowBlockDetails m_allowBlockDetails; ///< keys in base64
    bool m_bUnused = false;                ///< holds its place in the archive
    std::int32_t m_unverifiedAction = 1;
    CategoryBlockDetails m_categoryBlockDetails;

    /// The order is the wire format; it is not that of the declarations.
    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<STPreferences, Archive>(version);
        auto type = static_cast<int>(m_prefType);
        archive& m_bEnable;
        archive& m_bSafeSearch;
        archive& m_redSiteAction;
        archive& m_yellowSiteAction;
        archive& m_unratedSiteAction;
        archive& type;
        archive& m_bIndividual;
        archive& m_bCategoryBlocking;
        archive& m_bUnused;
        archive& m_bAllowOverBlock;
        archive& m_unverifiedAction;
        archive& m_categoryBlockDetails;
        archive& m_allowBlockDetails;
        if constexpr (Archive::is_loading::value) {
            m_prefType = static_cast<STPrefType>(type);
        }
    }
};

} // namespace Sentrel

BOOST_CLASS_VERSION(Sentrel::STPreferences, 0)
