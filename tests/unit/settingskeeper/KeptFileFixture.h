// A settings file that a test writes as the daemon does.
#pragma once

#include "base/Database.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace testing_support {

/// A settings file in write-ahead mode with its four tables, and a connection that stays open for writing.
class ASettingsFile : public testing::Test {
protected:
    ASettingsFile() { make(); }

    void make() {
        m_writer.reset();
        for (const char* end : {"", "-wal", "-shm"}) {
            std::filesystem::remove(m_path + end);
        }
        std::ofstream(m_path).flush();
        m_writer = Sentrel::openDatabase(m_path);
        run("PRAGMA journal_mode=wal; PRAGMA synchronous=off;"
            "create table vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));"
            "create table catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name));"
            "create table allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name));"
            "create table privateIPRange(range text NOT NULL, PRIMARY KEY(range))");
    }
    void run(const std::string& sql) { Sentrel::execute(*m_writer, sql.c_str()); }

    /// A key with its NUL and a number, as the daemon stores them.
    void setNumber(const std::string& key, int value) {
        run("insert or replace into vxsetting values (cast(x'" + hexOf(key) + "00' as text), x'" +
            hexOf(std::string(reinterpret_cast<const char*>(&value), sizeof value)) + "')");
    }
    void setText(const std::string& key, const std::string& value) {
        run("insert or replace into vxsetting values (cast(x'" + hexOf(key) + "00' as text), x'" + hexOf(value) + "')");
    }
    void addUrl(const std::string& url, int value = 1) {
        run("insert or replace into allowblocksettings values (cast(x'" + hexOf(url) + "' as text)," +
            std::to_string(value) + ")");
    }
    void dropUrls() { run("delete from allowblocksettings"); }

    static std::string hexOf(const std::string& bytes) {
        constexpr const char* digits = "0123456789abcdef";
        std::string hex;
        for (const char byte : bytes) {
            const auto number = static_cast<unsigned char>(byte);
            hex += digits[number / 16];
            hex += digits[number % 16];
        }
        return hex;
    }

    PrivateRoot m_root;
    const std::string m_path = m_root.sharedDirectory() + "/product.db";
    Sentrel::DatabasePtr m_writer;
};

} // namespace testing_support
