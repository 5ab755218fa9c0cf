// The proxy on its way into the settings file: which keys, in which order, what a failure leaves.
#include "store/PreferencesException.h"
#include "tests/unit/store/PreferenceFixture.h"

#include <stdexcept>

namespace testing_support {
namespace {

using Sentrel::STPreferenceController;

constexpr int kNone = Sentrel::ST_ERROR_NONE;
constexpr int kDatabase = Sentrel::ST_ERROR_DATABASE;

struct Proxy {
    std::string host = "proxy.example";
    std::string user = "someone";
    std::string password = "s3cret";
    int port = 3128;
    int type = 2;
    int httpAuth = 1;
};

int set(const Proxy& proxy) {
    return STPreferenceController::getInstance()->setRpxProxySettings(
        proxy.host.c_str(), proxy.user.c_str(), proxy.password.c_str(), proxy.port, proxy.type, proxy.httpAuth);
}

const Proxy kInitial{"0", "0", "0", 80, 0, 0};

class AProxy : public PreferenceFixture {
protected:
    AProxy() {
        makeTables();
        controller();
    }

    /// The general table in the order in which its rows came.
    std::string rows() const {
        return sql("select replace(hex(name), '00', '.'), typeof(value), hex(value) from vxsetting order by rowid");
    }
    Lines linesOf(const std::function<void()>& act) const {
        return leveled(
            [this] {
                std::filesystem::remove_all(file());
                makeTables();
                controller();
            },
            act);
    }
    static Lines entry(const Proxy& proxy) {
        return {"3 setRpxProxySettings:: host: " + proxy.host,
                "3 setRpxProxySettings:: uname: " + proxy.user,
                "3 setRpxProxySettings:: pass: " + proxy.password,
                "3 setRpxProxySettings:: port: " + std::to_string(proxy.port),
                "3 setRpxProxySettings:: type: " + std::to_string(proxy.type),
                "3 setRpxProxySettings:: httpAuth: " + std::to_string(proxy.httpAuth)};
    }
    static std::string line(const std::string& rest) { return "STPreferenceController::setRpxProxySettings - " + rest; }
    static Lines updated(const Lines& words) {
        Lines lines;
        for (const std::string& word : words) {
            lines.push_back("3 " + line("Successfully updated " + word + " in DB"));
        }
        return lines;
    }
};

TEST_F(AProxy, WritesSixKeysInOrder) {
    EXPECT_EQ(set({}), kNone);
    EXPECT_EQ(sql("select hex(name), typeof(value), hex(value) from vxsetting order by rowid"),
              "52505850726F7879486F737400|blob|70726F78792E6578616D706C65\n" // RPXProxyHost
              "4874747041757468556E616D6500|blob|736F6D656F6E65\n"           // HttpAuthUname
              "487474704175746850617373"
              "00|blob|733363726574\n"                         // HttpAuthPass
              "52505850726F7879506F727400|blob|380C0000\n"     // RPXProxyPort
              "52505850726F78795479706500|blob|02000000\n"     // RPXProxyType
              "456E61626C65487474704175746800|blob|01000000"); // EnableHttpAuth
}

TEST_F(AProxy, TracesEachStep) {
    EXPECT_EQ(linesOf([] { set({}); }),
              entry({}) + updated({"host", "uname", "pass", "port", "type", "httpAuthEnable"}));
}

TEST_F(AProxy, IsTracedWithOneLineForEachField) {
    Proxy proxy;
    proxy.host = "first\tsecond";
    proxy.user = "someone\nelse";
    proxy.password = "s3\x7f";
    Proxy printable = proxy;
    printable.host = "first\\x09second";
    printable.user = "someone\\x0aelse";
    printable.password = "s3\\x7f";
    EXPECT_EQ(linesOf([&] { set(proxy); }),
              entry(printable) + updated({"host", "uname", "pass", "port", "type", "httpAuthEnable"}));
}

TEST_F(AProxy, OfTheValuesAtAStartIsADuplicateAndWritesNothing) {
    std::filesystem::remove(file());
    EXPECT_EQ(set(kInitial), kNone);
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(linesOf([] { set(kInitial); }), entry(kInitial) + Lines{"3 " + line("duplicate proxy settings")});
}

TEST_F(AProxy, ThatDiffersInAnyFieldIsNoDuplicate) {
    const std::vector<void (*)(Proxy&)> changes{
        [](Proxy& proxy) { proxy.host = "other.example"; },
        [](Proxy& proxy) { proxy.user = "other"; },
        [](Proxy& proxy) { proxy.password = "other"; },
        [](Proxy& proxy) { proxy.port = 81; },
        [](Proxy& proxy) { proxy.type = 1; },
        [](Proxy& proxy) { proxy.httpAuth = 0; },
    };
    for (const auto& change : changes) {
        EXPECT_EQ(set({}), kNone);
        sql("delete from vxsetting");
        EXPECT_EQ(set({}), kNone);
        EXPECT_EQ(rows(), "") << "the same again is a duplicate";
        Proxy other;
        change(other);
        EXPECT_EQ(set(other), kNone);
        EXPECT_EQ(sql("select count(*) from vxsetting"), "6");
    }
}

TEST_F(AProxy, IsWrittenAgainAfterAStartThoughTheFileHoldsIt) {
    set({});
    sql("update vxsetting set value = x'00'");
    restarted();
    EXPECT_EQ(set({}), kNone);
    EXPECT_EQ(stored("HttpAuthUname"), "blob 736F6D656F6E65");
}

TEST_F(AProxy, WithAnEmptyPasswordFailsBehindHostAndUser) {
    Proxy proxy;
    proxy.password = "";
    EXPECT_EQ(set(proxy), kDatabase);
    EXPECT_EQ(stored("RPXProxyHost"), "blob 70726F78792E6578616D706C65");
    EXPECT_EQ(stored("HttpAuthUname"), "blob 736F6D656F6E65");
    EXPECT_EQ(sql("select count(*) from vxsetting"), "2");
    EXPECT_EQ(linesOf([&] { set(proxy); }),
              entry(proxy) + updated({"host", "uname"}) + Lines{"1 " + line("Error while updating pass in DB")});
}

TEST_F(AProxy, WithAnEmptyUserLeavesTheRestOfTheOldOne) {
    set({});
    Proxy proxy;
    proxy.host = "new.example";
    proxy.user = "";
    proxy.port = 8080;
    EXPECT_EQ(set(proxy), kDatabase);
    EXPECT_EQ(stored("RPXProxyHost"), "blob 6E65772E6578616D706C65");
    EXPECT_EQ(stored("HttpAuthUname"), "blob 736F6D656F6E65");
    EXPECT_EQ(stored("RPXProxyPort"), "blob 380C0000");
    // Memory took the host alone: with it and the old rest it is a duplicate now.
    sql("delete from vxsetting");
    Proxy mixed;
    mixed.host = "new.example";
    EXPECT_EQ(set(mixed), kNone);
    EXPECT_EQ(rows(), "");
}

TEST_F(AProxy, WithAnEmptyHostStoresNothing) {
    Proxy proxy;
    proxy.host = "";
    EXPECT_EQ(set(proxy), kDatabase);
    EXPECT_EQ(rows(), "");
    EXPECT_EQ(linesOf([&] { set(proxy); }), entry(proxy) + Lines{"1 " + line("Error while updating host in DB")});
}

TEST_F(AProxy, EndsAtTheKeyWhoseWriteFails) {
    const Lines keys{"RPXProxyHost", "HttpAuthUname", "HttpAuthPass", "RPXProxyPort", "RPXProxyType", "EnableHttpAuth"};
    const Lines words{"host", "uname", "pass", "port", "type", "httpAuthEnable"};
    for (std::size_t failing = 1; failing < keys.size(); ++failing) {
        // A row that the file refuses counts as written, and fails the next write.
        const Lines lines = leveled(
            [&] {
                std::filesystem::remove_all(file());
                makeTables();
                sql("create trigger t before insert on vxsetting when hex(new.name) = hex('" + keys[failing - 1] +
                    "') || '00' begin select raise(abort, 'no'); end");
                controller();
            },
            [] { EXPECT_EQ(set({}), kDatabase); });
        EXPECT_EQ(lines, entry({}) + updated({words.begin(), words.begin() + static_cast<std::ptrdiff_t>(failing)}) +
                             Lines{"1 " + line("Error while updating " + words[failing] + " in DB")});
        EXPECT_EQ(sql("select count(*) from vxsetting"), std::to_string(failing - 1));
    }
}

TEST_F(AProxy, EndsAtTheFirstKeyWithoutItsTable) {
    sql("drop table vxsetting");
    EXPECT_EQ(leveled([] { controller(); }, [] { EXPECT_EQ(set({}), kDatabase); }),
              entry({}) + Lines{"1 " + line("Error while updating host in DB")});
}

TEST_F(AProxy, IsStoredByTheLastOfTwo) {
    Proxy second;
    second.host = "second.example";
    second.port = 1;
    set({});
    set(second);
    EXPECT_EQ(stored("RPXProxyHost"), "blob 7365636F6E642E6578616D706C65");
    EXPECT_EQ(stored("RPXProxyPort"), "blob 01000000");
    EXPECT_EQ(sql("select count(*) from vxsetting"), "6");
}

TEST_F(AProxy, KeepsEveryByteOfItsTexts) {
    Proxy proxy;
    proxy.user = "caf\xc3\xa9";
    proxy.password = "\xff\x01'\"";
    EXPECT_EQ(set(proxy), kNone);
    EXPECT_EQ(stored("HttpAuthUname"), "blob 636166C3A9");
    EXPECT_EQ(stored("HttpAuthPass"), "blob FF012722");
}

TEST_F(AProxy, ThatCouldNotBeStoredIsNoDuplicateTheNextTime) {
    Proxy proxy = kInitial;
    proxy.host = "proxy.example";
    const auto path = settingsPath();
    settingsPath() = [](std::string&) { return false; };
    EXPECT_EQ(set(proxy), kDatabase);
    settingsPath() = path;
    EXPECT_EQ(set(proxy), kNone);
    EXPECT_EQ(stored("RPXProxyHost"), "blob 70726F78792E6578616D706C65");
}

TEST_F(AProxy, IsRefusedWithoutAPath) {
    settingsPath() = [](std::string&) { return false; };
    EXPECT_EQ(printed([] { EXPECT_EQ(set({}), kDatabase); }), "");
    EXPECT_EQ(linesOf([] { set({}); }), entry({}) + Lines{"1 Error while getting DB Path"});
}

TEST_F(AProxy, IsRefusedWithoutAHandle) {
    std::filesystem::remove(file());
    std::filesystem::create_directory(file());
    EXPECT_EQ(printed([] { EXPECT_EQ(set({}), kDatabase); }), "");
    EXPECT_EQ(leveled([] { controller(); }, [] { set({}); }),
              entry({}) + Lines{"1 " + line("Error while getting DB handle")});
}

TEST_F(AProxy, GivesACodeForEachKindOfException) {
    settingsPath() = [](std::string&) -> bool { throw Sentrel::PreferencesException("the\tstore"); };
    EXPECT_EQ(set({}), 180006);
    EXPECT_EQ(linesOf([] { set({}); }), entry({}) + Lines{"1 " + line("Caught Preferences exception the\\x09store")});
    settingsPath() = [](std::string&) -> bool { throw std::runtime_error("unknown"); };
    EXPECT_EQ(set({}), 180001);
    EXPECT_EQ(linesOf([] { set({}); }), entry({}) + Lines{"1 " + line("Caught generic exception ")});
}

TEST_F(AProxy, IsNotSignalled) {
    set({});
    EXPECT_TRUE(Recording::instance().calls().empty());
}

} // namespace
} // namespace testing_support
