#include "store/Queries.h"

#include "base/Singleton.h"

GeneralSetting* GeneralSetting::m_pSelf = nullptr;
boost::mutex GeneralSetting::m_instanceMutex;
CategoryBlocking* CategoryBlocking::m_pSelf = nullptr;
boost::mutex CategoryBlocking::m_instanceMutex;
AllowBlockSettings* AllowBlockSettings::m_pSelf = nullptr;
boost::mutex AllowBlockSettings::m_instanceMutex;
PrivateIPRange* PrivateIPRange::m_pSelf = nullptr;
boost::mutex PrivateIPRange::m_instanceMutex;

namespace {

constexpr QueryTexts kGeneralSetting{
    .get = "select value from vxsetting where name=?",
    .set = "insert or replace into vxsetting values (?,?)",
    .create = "create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name))",
    .remove = "delete from vxsetting",
    .allRows = "select * from vxsetting",
};

constexpr QueryTexts kCategoryBlocking{
    .get = "select value from catblockinginfo where name=?",
    .set = "insert or replace into catblockinginfo values (?,?)",
    .create = "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name))",
    .remove = "delete from catblockinginfo",
    .allRows = "select * from catblockinginfo",
};

constexpr QueryTexts kAllowBlockSettings{
    .get = "select value from allowblocksettings where name=?",
    .set = "insert or replace into allowblocksettings values (?,?)",
    .create = "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name))",
    .remove = "delete from allowblocksettings",
    .allRows = "select * from allowblocksettings",
};

constexpr QueryTexts kPrivateIPRange{
    .get = "select * from privateIPRange",
    .set = "insert or replace into privateIPRange values (?)",
    .create = "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range))",
    .remove = "delete from privateIPRange",
    .allRows = "select * from privateIPRange",
};

template <class T, class Create>
T* instanceOrNull(T*& self, boost::mutex& instanceMutex, Create create) {
    try {
        return Sentrel::instanceOf(self, instanceMutex, create);
    } catch (...) {
        return nullptr; // and the pointer has stayed null
    }
}

IQueryInterface* queriesOf(int tableType) {
    switch (tableType) {
    case TABLE_GENERAL_SETTING:
        return GeneralSetting::getInstance();
    case TABLE_CATEGORY_BLOCKING:
        return CategoryBlocking::getInstance();
    case TABLE_ALLOW_BLOCK:
        return AllowBlockSettings::getInstance();
    case TABLE_PRIVATE_IP_RANGE:
        return PrivateIPRange::getInstance();
    default:
        return nullptr;
    }
}

} // namespace

GeneralSetting::GeneralSetting() : TextQueries(kGeneralSetting) {}
CategoryBlocking::CategoryBlocking() : TextQueries(kCategoryBlocking) {}
AllowBlockSettings::AllowBlockSettings() : TextQueries(kAllowBlockSettings) {}
PrivateIPRange::PrivateIPRange() : TextQueries(kPrivateIPRange) {}

GeneralSetting* GeneralSetting::getInstance() {
    return instanceOrNull(m_pSelf, m_instanceMutex, [] { return new GeneralSetting; });
}

CategoryBlocking* CategoryBlocking::getInstance() {
    return instanceOrNull(m_pSelf, m_instanceMutex, [] { return new CategoryBlocking; });
}

AllowBlockSettings* AllowBlockSettings::getInstance() {
    return instanceOrNull(m_pSelf, m_instanceMutex, [] { return new AllowBlockSettings; });
}

PrivateIPRange* PrivateIPRange::getInstance() {
    return instanceOrNull(m_pSelf, m_instanceMutex, [] { return new PrivateIPRange; });
}

std::string queryText(int tableType, Query query) {
    TextQueries general(kGeneralSetting); // needs no instance, so that there is always a text
    IQueryInterface* queries = queriesOf(tableType);
    return ((queries == nullptr ? general : *queries).*query)();
}

std::string allowBlockRowsQuery(bool ascending) {
    return std::string(kAllowBlockSettings.allRows) + " ORDER BY value " + (ascending ? "ASC" : "DESC");
}
