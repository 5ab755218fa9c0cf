// The payloads of the hub's own screens and of its proxy event. Their names and their orders are the hub's.
#pragma once

#include "hub/ArchiveText.h"

#include <boost/serialization/collection_size_type.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>
#include <boost/serialization/vector.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// The version texts of a module.
/// Threads: one at a time. Owner: whoever built it.
class AboutBoxData {
public:
    std::int32_t m_moduleId = 0;
    std::map<std::wstring, std::wstring> m_versionItems;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<AboutBoxData, Archive>(version);
        archive& m_moduleId;
        archive& m_versionItems;
    }
};

/// What a status line of the dashboard says.
enum DashBoardStatus : std::int32_t {
    DASHBOARD_LOCAL_ENABLED = 0,
    DASHBOARD_LOCAL_DISABLED = 2,
    DASHBOARD_MANAGED_ENABLED = 3,
    DASHBOARD_MANAGED_DISABLED = 4,
    DASHBOARD_MANAGED_AT_RISK = 5, ///< the policy says on and the preference says off
};

/// A status line of the dashboard. The misspelling is the class's name on both sides of the hub.
/// Threads: one at a time. Owner: whoever built it.
class DashBoardDispalyContents {
public:
    std::wstring m_displayText; ///< a token that the user interface turns into its own words
    DashBoardStatus m_status = DASHBOARD_LOCAL_ENABLED;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<DashBoardDispalyContents, Archive>(version);
        auto status = static_cast<int>(m_status);
        archive& m_displayText;
        archive& status;
        if constexpr (Archive::is_loading::value) {
            m_status = static_cast<DashBoardStatus>(status);
        }
    }
};

/// The status lines of a module.
/// Threads: one at a time. Owner: whoever built it.
class DashBoardData {
public:
    std::int32_t m_moduleId = 0;
    std::map<std::wstring, DashBoardDispalyContents> m_statusItems;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<DashBoardData, Archive>(version);
        archive& m_moduleId;
        archive& m_statusItems;
    }
};

/// The proxy that the module is to use.
/// Threads: one at a time. Owner: whoever built it.
class proxySettings {
public:
    std::int32_t httpAuth = 0; ///< whether the proxy asks for name and password
    std::int32_t port = 0;
    std::int32_t type = 0;
    std::string host;
    std::string uname;
    std::string pass;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<proxySettings, Archive>(version);
        archive& httpAuth;
        archive& port;
        archive& type;
        archive& host;
        archive& uname;
        archive& pass;
    }
};

namespace boost::serialization {

/// Replaces the library's own, which allocates all declared elements before it has read one: a short text could claim
/// fifty times its own size.
template <class Archive, class Allocator>
void load(Archive& archive, std::vector<proxySettings, Allocator>& list, unsigned int /*version*/) {
    collection_size_type count;
    item_version_type itemVersion; // takes its place in the archive; each element has its own
    archive >> count;
    archive >> itemVersion;
    list.clear();
    for (std::size_t left = std::as_const(count); left > 0; --left) {
        archive >> list.emplace_back();
    }
}

} // namespace boost::serialization

BOOST_CLASS_VERSION(AboutBoxData, 0)
BOOST_CLASS_VERSION(DashBoardDispalyContents, 0)
BOOST_CLASS_VERSION(DashBoardData, 0)
BOOST_CLASS_VERSION(proxySettings, 0)
