// Rating lists in a directory of a test's own.
#pragma once

#include "browser/ratings/ListStore.h"
#include "browser/ratings/RatingDatabase.h"
#include "browser/ratings/RatingLists.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstddef>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

namespace testing_support {

/// Imports lists from files of its own, and asks for pages. Threads: one. Owner: the test.
class RatingLists : public ::testing::Test {
protected:
    std::string fileWith(const std::string& name, const std::string& content) const {
        const std::string path = m_directory.file(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    Sentrel::ratings::ListHead headOf(const std::string& name, Sentrel::ratings::ListFormat format, int rating) const {
        Sentrel::ratings::ListHead head;
        head.facts.name = name;
        head.facts.rating = rating;
        head.format = format;
        head.file = m_directory.file(name + ".txt");
        return head;
    }

    /// A list with the name of its file.
    Sentrel::ratings::ListReport import(const std::string& name, Sentrel::ratings::ListFormat format, int rating,
                                        const std::string& content) {
        fileWith(name + ".txt", content);
        return m_store.import(headOf(name, format, rating), -1);
    }

    static Sentrel::browsing::WebUrl pageOf(const std::string& host) {
        return std::get<0>(Sentrel::browsing::parseWebUrl("https://" + host + "/page"));
    }

    /// "rating list" of a page on that host, "none" without a list, "?" where the database is damaged.
    std::string rated(const std::string& host) const {
        const Sentrel::ratings::RatingDatabase database(databasePath());
        const auto* const found = database.find(pageOf(host));
        if (found == nullptr) {
            return "?";
        }
        return found->ratedBy.empty() ? "none" : std::to_string(found->standing.rating) + " " + found->ratedBy;
    }

    std::string listsDirectory() const { return m_directory.file("ratings"); }
    std::string databasePath() const { return listsDirectory() + "/ratings.cdb"; }

    static std::string contentOf(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    const TemporaryDirectory m_directory;
    Sentrel::ratings::ListStore m_store{m_directory.file("ratings")};
};

} // namespace testing_support
