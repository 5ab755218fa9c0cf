// A configuration file in a directory of the test's own.
#pragma once

#include "platform/hvbutils/XmlFile.h"
#include "tests/support/Files.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

inline constexpr const char* kLevel = "/HVConfiguration/LogLevel";

/// Threads: the test's. Owner: gtest.
class AConfigFile : public testing::Test {
protected:
    AConfigFile() {
        std::filesystem::create_directory(directory);
        write("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HVConfiguration>\n"
              "    <SyslogEnable>true</SyslogEnable>\n    <LogLevel>information</LogLevel>\n"
              "    <PatchVersion></PatchVersion>\n    <Hotfixes> </Hotfixes>\n</HVConfiguration>\n");
    }

    void write(const std::string& content) const { testing_support::writeFile(path, content); }
    void writeInside(const std::string& elements) const {
        write("<HVConfiguration>" + elements + "</HVConfiguration>\n");
    }

    std::string content() const { return testing_support::readFile(path); }

    /// What an element of the file says, as a reader that comes now finds it.
    std::string value(const char* xpath = kLevel) const { return XmlFile(path).textAt(xpath); }

    bool save(const char* newValue) const {
        XmlFile file(path);
        file.setTextAt(kLevel, newValue);
        return file.saveTo(path.c_str());
    }

    /// Why the file as it is now is refused.
    std::string refusal() const {
        try {
            const XmlFile file(path);
        } catch (const LibXmlError& error) {
            return error.what();
        }
        return "accepted";
    }

    std::size_t filesInDirectory() const { return testing_support::countEntries(directory); }

    testing_support::PrivateRoot root;
    const std::string directory = root.file("c");
    const std::string path = directory + "/HVConfig.xml";
};
