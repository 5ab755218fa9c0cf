// Texts in memory files: made, sealed and handed on, or taken from a stranger and looked at.
//
// What must stay so:
// - A file is sealed against every change before its descriptor leaves, and one that arrives counts only with those
//   seals: its sender could otherwise change or cut it while it is read.
// - Its size is asked of the system and bounded before anything is mapped or allocated.
#include "platform/hvbhelpers/MemoryFile.h"

#include "base/FileWriting.h"
#include "hub/Exceptions.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <system_error>

namespace HVB::detail {
namespace {

constexpr int kSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
constexpr std::uint8_t kNarrow = 1;
constexpr std::uint8_t kWide = sizeof(wchar_t);
/// Characters that are converted in one go.
constexpr std::size_t kChunk = std::size_t{16} << 10U;

[[noreturn]] void throwErrno(const char* doing) {
    throw HVBException(-errno, std::string(doing) + ": " + std::generic_category().message(errno));
}

std::uint8_t widthOf(std::wstring_view text) {
    constexpr wchar_t lastByte = 0xFF;
    const bool fits = std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= 0 && c <= lastByte; });
    return fits ? kNarrow : kWide;
}

std::string packed(std::wstring_view text, std::uint8_t width) {
    std::string bytes(text.size() * width, '\0');
    if (width == kWide) {
        std::memcpy(bytes.data(), text.data(), bytes.size());
    } else {
        std::transform(text.begin(), text.end(), bytes.begin(), [](wchar_t c) { return static_cast<char>(c); });
    }
    return bytes;
}

std::wstring unpacked(std::string_view bytes, std::uint8_t width) {
    std::wstring text(bytes.size() / width, L'\0');
    if (width == kWide) {
        std::memcpy(text.data(), bytes.data(), bytes.size());
    } else {
        std::transform(bytes.begin(), bytes.end(), text.begin(),
                       [](char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); });
    }
    return text;
}

/// Hands the file's bytes to @p take, piece by piece, until it gives false.
/// @return false when the file cannot be read to its end, or @p take gave false.
bool readPieces(int fd, std::size_t size, std::size_t piece, const std::function<bool(std::string_view)>& take) {
    std::string buffer(std::min(size, piece), '\0');
    for (std::size_t at = 0; at < size;) {
        const std::size_t wanted = std::min(size - at, buffer.size());
        const ssize_t got = ::pread(fd, buffer.data(), wanted, static_cast<off_t>(at));
        if (got != static_cast<ssize_t>(wanted) || !take(std::string_view(buffer).substr(0, wanted))) {
            return false;
        }
        at += wanted;
    }
    return true;
}

} // namespace

MemoryFile::Ptr MemoryFile::of(std::wstring_view text, std::size_t maxBytes) {
    const std::uint8_t width = widthOf(text);
    return sealed(width, text.size() * width, maxBytes, [&](int fd) {
        for (std::size_t at = 0; at < text.size(); at += kChunk) {
            Sentrel::writeAll(fd, packed(text.substr(at, kChunk), width), "a memory file");
        }
    });
}

MemoryFile::Ptr MemoryFile::ofBytes(std::string_view bytes, std::size_t maxBytes) {
    return sealed(kNarrow, bytes.size(), maxBytes, [&](int fd) { Sentrel::writeAll(fd, bytes, "a memory file"); });
}

MemoryFile::Ptr MemoryFile::sealed(std::uint8_t width, std::size_t bytes, std::size_t maxBytes,
                                   const std::function<void(int)>& fill) {
    if (bytes > maxBytes) {
        throw HVBException(-EMSGSIZE, fmt::format("a text of {} bytes is too large for the hub", bytes));
    }
    Sentrel::UniqueFd file(::memfd_create("hvb-payload", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file.isOpen()) {
        throwErrno("cannot make a memory file");
    }
    try {
        fill(file.get());
    } catch (const std::system_error& error) {
        throw HVBException(-error.code().value(), error.what());
    }
    if (::fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) {
        throwErrno("cannot seal a memory file");
    }
    return Ptr(new MemoryFile(std::move(file), width, bytes));
}

MemoryFile::Ptr MemoryFile::arrived(int fd, std::uint8_t width, std::size_t maxBytes) {
    const auto refuse = [](const std::string& why) { throw HVBException(-EBADMSG, "a payload's file " + why); };
    if (width != kNarrow && width != kWide) {
        refuse(fmt::format("has {} bytes a character, neither 1 nor 4", width));
    }
    // Only files in memory have seals, and with these nobody can change or shorten one while it is read.
    const int seals = ::fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kSeals & ~F_SEAL_SEAL) != (kSeals & ~F_SEAL_SEAL)) {
        refuse("is no memory file that is sealed against change");
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        throwErrno("cannot look at a payload's file");
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > maxBytes || size % width != 0) {
        refuse(fmt::format("has {} bytes, which is {}", size,
                           size > maxBytes ? fmt::format("more than {}", maxBytes) : "no whole number of characters"));
    }
    Sentrel::UniqueFd own(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!own.isOpen()) {
        throwErrno("cannot keep a payload's file");
    }
    return Ptr(new MemoryFile(std::move(own), width, size));
}

std::wstring MemoryFile::text() const {
    std::wstring text;
    text.reserve(m_bytes / m_width);
    const bool done = readPieces(m_fd.get(), m_bytes, kChunk * m_width, [&](std::string_view piece) {
        text += unpacked(piece, m_width);
        return true;
    });
    if (!done) {
        throw HVBException(-EBADMSG, "a payload's file cannot be read");
    }
    return text;
}

std::string MemoryFile::content() const {
    std::string bytes;
    bytes.reserve(m_bytes);
    const bool done = readPieces(m_fd.get(), m_bytes, kChunk, [&](std::string_view piece) {
        bytes += piece;
        return true;
    });
    if (!done) {
        throw HVBException(-EBADMSG, "a payload's file cannot be read");
    }
    return bytes;
}

bool MemoryFile::holds(std::wstring_view text) const {
    if (text.size() * m_width != m_bytes) {
        return false;
    }
    return readPieces(m_fd.get(), m_bytes, kChunk * m_width, [&](std::string_view piece) {
        const std::size_t characters = piece.size() / m_width;
        const bool same = unpacked(piece, m_width) == text.substr(0, characters);
        text.remove_prefix(characters);
        return same;
    });
}

} // namespace HVB::detail
