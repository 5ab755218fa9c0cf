// A configuration file, read and written by XPath: LibXmlWrapper is made of it, and the tools use it.
#pragma once

#include "base/FileReading.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

/// A configuration file that cannot be used; the text says which, where and why, on one printable line.
class LibXmlError : public std::runtime_error {
public:
    /// @param path and @param reason are printable.
    LibXmlError(const std::string& path, const std::string& reason)
        : std::runtime_error(path + ": " + reason), m_reasonAt(path.size() + 2) {}

    /// The text without the file's name.
    std::string reason() const { return what() + m_reasonAt; }

private:
    std::size_t m_reasonAt;
};

/// One XML document, held in memory from its construction on.
/// Threads: one at a time; different documents at the same time. Owner: whoever built it.
class XmlFile {
public:
    /// What to do where the file itself is a symbolic link; one among its directories is always followed. What another
    /// user writes is not read with Follow: through a link that user could point the reader at any file.
    using Links = Sentrel::Links;

    /// Opens and parses the file at @p path. Nothing outside the file is read, and what is no file never blocks.
    /// @throws LibXmlError when it is no regular file, cannot be read, is larger than kMaxConfigFileBytes, is not
    /// well-formed, nests deeper than kMaxConfigDepth, or has a document type.
    explicit XmlFile(std::string path, Links links = Links::Follow);
    ~XmlFile();
    XmlFile(const XmlFile&) = delete;
    XmlFile& operator=(const XmlFile&) = delete;

    /// Whether @p xpath finds one element or more.
    /// @throws LibXmlError when it is no XPath.
    bool finds(const char* xpath) const;

    /// The text of the one element that @p xpath finds, with the blanks around it; empty when the element is.
    /// @throws LibXmlError when it finds none, several, or what is no element or holds others.
    std::string textAt(const char* xpath) const;

    /// Whether the text of the element, without the blanks around it, is "true" or "1".
    /// @throws LibXmlError as textAt does, and when the text is neither of these, "false" nor "0".
    bool truthAt(const char* xpath) const;

    /// Gives the one element that @p xpath finds the text @p value, and removes comments in it. An element that is not
    /// there is not made. Nothing changes when the element has that text already, or when this throws. The file stays
    /// as it is until it is saved.
    /// @throws LibXmlError as textAt does, when XML has no form for @p value (most control characters,
    /// bytes that are no UTF-8), when the document would become too large, and when its encoding is not UTF-8.
    void setTextAt(const char* xpath, const char* value);

    /// Replaces the regular file at @p path in one step: another reader and a crash meet the old file or the new one,
    /// whole. The mode stays, and the owner where this process may give files away; further links and extended
    /// attributes do not. What was not set is written byte for byte as it was read; what another process wrote
    /// meanwhile is lost.
    /// @return false when that cannot be done, also where a symbolic link or no file is; the file is then as it was.
    /// Only when the disk fails after the rename is it the new one.
    bool saveTo(const char* path) const;

private:
    struct Document;
    const std::string m_path;
    std::unique_ptr<Document> m_document;
};
