// The four tables of the settings file: their names and all of their SQL.
#pragma once

#include <boost/thread/mutex.hpp>

#include <string>

/// Selects a table of the settings file.
enum TableType : int {
    TABLE_GENERAL_SETTING = 0,
    TABLE_CATEGORY_BLOCKING = 1,
    TABLE_ALLOW_BLOCK = 2,
    TABLE_PRIVATE_IP_RANGE = 3,
};

/// The statements of one table.
/// Threads: any; there is no data. Owner: the program; the instances are never freed.
class IQueryInterface {
public:
    virtual std::string GenerateGetQuery() = 0;
    virtual std::string GenerateSetQuery() = 0;
    virtual std::string GenerateCreateQuery() = 0;
    virtual std::string GenerateDeleteQuery() = 0;
    virtual std::string GenerateGetAllRowsQuery() = 0;
    virtual ~IQueryInterface() = default;
};

/// The statements of one table as they are written down.
struct QueryTexts {
    const char* get;
    const char* set;
    const char* create;
    const char* remove;
    const char* allRows;
};

/// Answers from a table of texts, which outlives it.
/// Threads: any. Owner: whoever built it.
class TextQueries : public IQueryInterface {
public:
    explicit TextQueries(const QueryTexts& texts) : m_texts(texts) {}

    std::string GenerateGetQuery() override { return m_texts.get; }
    std::string GenerateSetQuery() override { return m_texts.set; }
    std::string GenerateCreateQuery() override { return m_texts.create; }
    std::string GenerateDeleteQuery() override { return m_texts.remove; }
    std::string GenerateGetAllRowsQuery() override { return m_texts.allRows; }

private:
    const QueryTexts& m_texts;
};

// The four tables. getInstance gives null when the instance cannot be made; the next call tries again.
// Threads: any. Owner: the program; the instances are never freed.

/// The scalar settings, a row each.
class GeneralSetting : public TextQueries {
public:
    static GeneralSetting* getInstance();

private:
    GeneralSetting();

    static GeneralSetting* m_pSelf;
    static boost::mutex m_instanceMutex;
};

/// The blocked categories.
class CategoryBlocking : public TextQueries {
public:
    static CategoryBlocking* getInstance();

private:
    CategoryBlocking();

    static CategoryBlocking* m_pSelf;
    static boost::mutex m_instanceMutex;
};

/// The allow/block list.
class AllowBlockSettings : public TextQueries {
public:
    static AllowBlockSettings* getInstance();

private:
    AllowBlockSettings();

    static AllowBlockSettings* m_pSelf;
    static boost::mutex m_instanceMutex;
};

/// The private ranges. Its one column is the range itself, so what gets one row gets all.
class PrivateIPRange : public TextQueries {
public:
    static PrivateIPRange* getInstance();

private:
    PrivateIPRange();

    static PrivateIPRange* m_pSelf;
    static boost::mutex m_instanceMutex;
};

/// One of the operations of IQueryInterface.
using Query = std::string (IQueryInterface::*)();

/// The text of @p query for a table. A type outside the four, or a class without an instance, gets that of the scalar
/// settings. @throws std::bad_alloc
std::string queryText(int tableType, Query query);

/// All rows of the allow/block table by their value: allow entries first when @p ascending, otherwise last.
/// @throws std::bad_alloc
std::string allowBlockRowsQuery(bool ascending);
