// The rating lists of this machine: brought in, renewed, taken out, and compiled.
#pragma once

#include "browser/ratings/DatabaseBuild.h"
#include "browser/ratings/EntryList.h"
#include "browser/ratings/RatingHeads.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Sentrel::ratings {

inline constexpr std::size_t kToldBadLines = 10; // of one list; a file of another kind is all bad lines

/// A line that is none of its format.
struct BadLine {
    std::uint64_t number;
    std::string fault; ///< the end of a sentence
};

/// How a list was read. Threads: a plain value. Owner: the holder.
struct ListReport {
    ListFacts facts{};
    std::uint64_t passedOver = 0; ///< lines that name no whole host
    std::uint64_t bad = 0;
    std::vector<BadLine> firstBad{}; ///< at most kToldBadLines
};

/// What became of one list at an update.
struct UpdateReport {
    std::string name;
    std::optional<ListReport> report; ///< none: it stays as it was
    std::string why;                  ///< it does
};

/// A directory with the lists and the database. What changes it holds a lock, so that two never meet.
/// Threads: one. Owner: the operation.
/// All operations throw UnusableList with a reason, and std::system_error when the system refuses.
class ListStore {
public:
    explicit ListStore(std::string directory) : m_directory(std::move(directory)) {}

    /// Reads the file that @p head names, takes the list in under its name, in the place of an earlier one of that
    /// name, and compiles all. An empty file name: @p inputFd is read, and the list cannot be updated afterwards.
    ListReport import(ListHead head, int inputFd);

    /// Imports all lists anew from their files, as they were imported; with a name, that one. One that fails stays as
    /// it was. Compiles all.
    std::vector<UpdateReport> update(const std::string& name);

    /// @return whether there was such a list. Without any list there is no database.
    bool remove(const std::string& name);

    std::vector<ListHead> lists() const;

    /// The size of the database at the last compiling of this object.
    const DatabaseSize& size() const { return m_size; }

private:
    std::string pathOf(const std::string& name) const;
    std::string databasePath() const;
    std::vector<std::string> listPaths() const;
    ListReport take(ListHead head, int fd);
    ListReport takeFile(ListHead head, bool isFirst);
    void compile();

    const std::string m_directory;
    DatabaseSize m_size;
};

/// Whether a list may be called so: letters, digits, '-', '_' and '.' inside, at most 64 bytes.
bool isListName(const std::string& name);

} // namespace Sentrel::ratings
