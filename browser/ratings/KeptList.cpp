#include "browser/ratings/KeptList.h"

#include "base/FileFailure.h"
#include "base/FileWriting.h"
#include "browser/ratings/HostNames.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace Sentrel::ratings {
namespace {

constexpr std::string_view kMarkDigits = "0123456789abcdef";

UniqueFd opened(const std::string& path) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        failFile(errno, path, "cannot be opened");
    }
    return file;
}

} // namespace

void writeKeptList(const std::string& path, const ListHead& head, const EntryList& entries) {
    constexpr std::size_t step = std::size_t{1} << 20U;
    FileReplacement file(path);
    std::string bytes = textOf(head) + "\n";
    entries.forEach([&](std::string_view key, Marks marks) {
        bytes += kMarkDigits[marks & kAllMarks];
        bytes.append(key).push_back('\n');
        if (bytes.size() > step) {
            writeAll(file.fd(), bytes, path);
            bytes.clear();
        }
    });
    writeAll(file.fd(), bytes, path);
    file.commit();
}

KeptList::KeptList(const std::string& path) : m_path(path), m_file(opened(path)), m_lines(m_file.get(), path) {
    const auto line = m_lines.next();
    if (!line) {
        fail("it is empty");
    }
    try {
        m_head = readListHead(line->text);
    } catch (const UnusableList& error) {
        fail(error.what());
    }
    advance();
}

void KeptList::fail(const char* what) const {
    throw UnusableList(m_path + ": " + what + "; import the list again");
}

void KeptList::advance() {
    const auto line = m_lines.next();
    m_isAtEnd = !line.has_value();
    if (m_isAtEnd) {
        return;
    }
    const std::size_t marks = line->text.empty() ? std::string_view::npos : kMarkDigits.find(line->text.front());
    const std::string_view key = line->text.substr(std::min<std::size_t>(1, line->text.size()));
    if (marks == std::string_view::npos || key.empty() || key.size() > kMaxHostBytes || key <= m_key) {
        fail("it is damaged");
    }
    m_marks = static_cast<Marks>(marks);
    m_key = key;
}

} // namespace Sentrel::ratings
