// A list as it is kept, from which the database is compiled: its head on one line, then a line an entry, in the order
// of the keys; a line is the marks as a hexadecimal digit, and the key.
#pragma once

#include "base/UniqueFd.h"
#include "browser/ratings/EntryList.h"
#include "browser/ratings/LineSource.h"
#include "browser/ratings/RatingHeads.h"

#include <string>
#include <string_view>

namespace Sentrel::ratings {

/// Writes the file at @p path anew, in one step. @throws std::system_error when the system refuses.
void writeKeptList(const std::string& path, const ListHead& head, const EntryList& entries);

/// Reads one from its begin to its end.
/// Threads: one. Owner: the operation.
class KeptList {
public:
    /// @throws UnusableList when it is none, and std::system_error when the system refuses.
    explicit KeptList(const std::string& path);
    KeptList(const KeptList&) = delete;
    KeptList& operator=(const KeptList&) = delete;

    const ListHead& head() const { return m_head; }

    /// The current entry. Requires that there is one.
    std::string_view key() const { return m_key; }
    Marks marks() const { return m_marks; }
    bool isAtEnd() const { return m_isAtEnd; }

    /// Goes to the next entry. @throws as the constructor.
    void advance();

private:
    [[noreturn]] void fail(const char* what) const;

    const std::string m_path;
    const UniqueFd m_file;
    LineSource m_lines;
    ListHead m_head;
    std::string m_key;
    Marks m_marks = 0;
    bool m_isAtEnd = false;
};

} // namespace Sentrel::ratings
