// A client of the hub as somebody else would write it: its own classes, in the orders that the documents give, and the
// archive library as it comes. It includes nothing of this tree, so what both sides understand is what the documents
// say. Built twice: with PEER_TRACKS its classes are tracked.
//
//     archive-peer write KIND    an archive on stdout
//     archive-peer read KIND     an archive on stdin, its values on stdout
//
// All text is UTF-8.
#include <boost/archive/text_wiarchive.hpp>
#include <boost/archive/text_woarchive.hpp>
#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/tracking.hpp>
#include <boost/serialization/utility.hpp>
#include <boost/serialization/vector.hpp>

#include <exception>
#include <iostream>
#include <locale>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace peer {

struct NeverLess {
    bool operator()(const std::string& /*left*/, const std::string& /*right*/) const { return false; }
};

using Categories = std::map<std::string, int>;
using Urls = std::multimap<std::string, int, NeverLess>;

struct Settings {
    bool enabled = true;
    bool safeSearch = false;
    int red = 3;
    int yellow = 2;
    int unrated = 1;
    int type = 10;
    bool individual = false;
    bool categoryBlocking = false;
    bool reserved = false;
    bool allowOverBlock = false;
    int unverified = 1;
    Categories categories;
    Urls urls;

    template <class Archive>
    void serialize(Archive& archive, unsigned int /*version*/) {
        archive& enabled& safeSearch& red& yellow& unrated& type& individual& categoryBlocking& reserved&
            allowOverBlock& unverified& categories& urls;
    }
};

using Versions = std::map<std::wstring, std::wstring>;

struct About {
    int module = 0;
    Versions versions;

    template <class Archive>
    void serialize(Archive& archive, unsigned int /*version*/) {
        archive& module& versions;
    }
};

struct Line {
    std::wstring token;
    int status = 0;

    template <class Archive>
    void serialize(Archive& archive, unsigned int /*version*/) {
        archive& token& status;
    }
};

using Lines = std::map<std::wstring, Line>;

struct Board {
    int module = 0;
    Lines lines;

    template <class Archive>
    void serialize(Archive& archive, unsigned int /*version*/) {
        archive& module& lines;
    }
};

struct Proxy {
    int authentication = 0;
    int port = 0;
    int type = 0;
    std::string host;
    std::string user;
    std::string password;

    template <class Archive>
    void serialize(Archive& archive, unsigned int /*version*/) {
        archive& authentication& port& type& host& user& password;
    }
};

using Proxies = std::vector<Proxy>;
using DebugLogging = std::map<int, bool>;

} // namespace peer

#ifdef PEER_TRACKS
BOOST_CLASS_TRACKING(peer::Proxy, boost::serialization::track_always)
BOOST_CLASS_TRACKING(peer::Line, boost::serialization::track_always)
#endif

namespace peer {
namespace {

#ifdef PEER_TRACKS
template <class Value>
void saveThroughPointer(boost::archive::text_woarchive& archive) {
    const Value* const nothing = nullptr;
    archive << nothing;
}

/// Nobody calls this. That a program could save a class through a pointer is what has the library track it.
[[maybe_unused]] void saveEverythingThroughPointers(boost::archive::text_woarchive& archive) {
    saveThroughPointer<Settings>(archive);
    saveThroughPointer<Categories>(archive);
    saveThroughPointer<Urls>(archive);
    saveThroughPointer<Categories::value_type>(archive); // of both lists
    saveThroughPointer<About>(archive);
    saveThroughPointer<Versions>(archive);
    saveThroughPointer<Versions::value_type>(archive);
    saveThroughPointer<Board>(archive);
    saveThroughPointer<Lines>(archive);
    saveThroughPointer<Lines::value_type>(archive);
    saveThroughPointer<Proxies>(archive);
    saveThroughPointer<DebugLogging>(archive);
    saveThroughPointer<DebugLogging::value_type>(archive);
}
#endif

Settings someSettings() {
    Settings settings;
    settings.enabled = false;
    settings.safeSearch = true;
    settings.red = 21;
    settings.yellow = -22;
    settings.unrated = 2147483647;
    settings.type = 7;
    settings.individual = true;
    settings.categoryBlocking = true;
    settings.allowOverBlock = true;
    settings.unverified = -2147483647 - 1;
    settings.categories = {{"", 9}, {"Online Gambling", 1}, {"Zoo", 0}};
    for (const auto& [key, action] : {std::pair("Yi5leGFtcGxl", 0), {"YS5leGFtcGxl", 1}, {"Yi5leGFtcGxl", 7}}) {
        settings.urls.emplace(key, action);
    }
    return settings;
}

Proxies someProxies() {
    Proxies proxies(3);
    proxies[0] = {1, 8080, -2, "proxy.example", "user name", "p"};
    proxies[2] = {0, 3128, 4, "b", "", " "};
    return proxies;
}

template <class Value>
void writeValue(const Value& value) {
    std::wstringstream stream;
    {
        boost::archive::text_woarchive archive(stream);
        archive << value;
    }
    std::wcout << stream.str();
}

template <class Value>
Value readValue() {
    std::wstringstream stream;
    stream << std::wcin.rdbuf();
    boost::archive::text_wiarchive archive(stream);
    Value value;
    archive >> value;
    return value;
}

std::wstring wide(const std::string& text) {
    return {text.begin(), text.end()};
}

void print(const Settings& value) {
    std::wcout << value.enabled << ' ' << value.safeSearch << ' ' << value.red << ' ' << value.yellow << ' '
               << value.unrated << ' ' << value.type << ' ' << value.individual << ' ' << value.categoryBlocking << ' '
               << value.reserved << ' ' << value.allowOverBlock << ' ' << value.unverified << '\n';
    for (const auto& [name, action] : value.categories) {
        std::wcout << "category [" << wide(name) << "] " << action << '\n';
    }
    for (const auto& [url, action] : value.urls) {
        std::wcout << "url [" << wide(url) << "] " << action << '\n';
    }
}

void print(const About& value) {
    std::wcout << value.module << '\n';
    for (const auto& [key, text] : value.versions) {
        std::wcout << '[' << key << "] [" << text << "]\n";
    }
}

void print(const Board& value) {
    std::wcout << value.module << '\n';
    for (const auto& [key, line] : value.lines) {
        std::wcout << '[' << key << "] [" << line.token << "] " << line.status << '\n';
    }
}

void print(const Proxies& value) {
    for (const Proxy& proxy : value) {
        std::wcout << proxy.authentication << ' ' << proxy.port << ' ' << proxy.type << " [" << wide(proxy.host)
                   << "] [" << wide(proxy.user) << "] [" << wide(proxy.password) << "]\n";
    }
}

void print(const DebugLogging& value) {
    for (const auto& [module, on] : value) {
        std::wcout << module << ' ' << on << '\n';
    }
}

void print(int value) {
    std::wcout << value << '\n';
}

/// What can be done with one kind of payload.
struct Kind {
    void (*write)();
    void (*read)();
};

template <class Value>
void readAndPrint() {
    print(readValue<Value>());
}

const std::map<std::string, Kind>& kinds() {
    static const std::map<std::string, Kind> all{
        {"preferences", {[] { writeValue(someSettings()); }, readAndPrint<Settings>}},
        {"default-preferences", {[] { writeValue(Settings()); }, readAndPrint<Settings>}},
        {"about-box",
         {[] {
              writeValue(About{7, {{L"Sentrel_HF", L""}, {L"Sentrel_Version", L"1.2 \u20AC (3)"}}});
          },
          readAndPrint<About>}},
        {"dash-board",
         {[] {
              writeValue(Board{7, {{L"a", {L"ENABLED_STRING", 5}}, {L"\u00FC", {L"", 2}}}});
          },
          readAndPrint<Board>}},
        {"proxies", {[] { writeValue(someProxies()); }, readAndPrint<Proxies>}},
        {"debug-map",
         {[] {
              writeValue(DebugLogging{{-3, true}, {7, false}, {9, true}});
          },
          readAndPrint<DebugLogging>}},
        {"int", {[] { writeValue(-180004); }, readAndPrint<int>}},
        {"bool", {[] { writeValue(true); }, readAndPrint<bool>}},
    };
    return all;
}

int run(const std::vector<std::string>& arguments) {
    constexpr int wrongUse = 2;
    const auto kind = arguments.size() == 2 ? kinds().find(arguments[1]) : kinds().end();
    if (kind == kinds().end() || (arguments[0] != "write" && arguments[0] != "read")) {
        std::cerr << "usage: archive-peer write|read KIND\n";
        return wrongUse;
    }
    (arguments[0] == "write" ? kind->second.write : kind->second.read)();
    return std::wcout.flush() ? 0 : 1;
}

} // namespace
} // namespace peer

int main(int argc, char** argv) {
    try {
        std::ios_base::sync_with_stdio(false);
        const std::locale utf8("C.UTF-8");
        std::wcin.imbue(utf8);
        std::wcout.imbue(utf8);
        return peer::run({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::cerr << "archive-peer: " << failure.what() << '\n';
        return 1;
    }
}
