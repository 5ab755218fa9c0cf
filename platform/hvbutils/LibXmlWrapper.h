// XPath access to the hub's configuration files, in the form in which the daemon asks its neighbour's library for it:
// no operation, argument or const more.
#pragma once

#include <memory>
#include <string>

class XmlFile;

/// One configuration file, held in memory from its construction on. What fails is thrown as a LibXmlError, of which a
/// caller needs to know no more than that it is thrown; XmlFile has the limits and the reasons.
/// Threads: one at a time; different files at the same time. Owner: whoever built it.
class LibXmlWrapper {
public:
    /// Opens and parses the file at @p path. Throws when it cannot be used.
    explicit LibXmlWrapper(std::string path);
    ~LibXmlWrapper();
    LibXmlWrapper(const LibXmlWrapper&) = delete;
    LibXmlWrapper& operator=(const LibXmlWrapper&) = delete;

    /// The text of the one element that @p xpath finds. Throws when it finds none or several.
    std::string getXPathStringValue(const char* xpath);

    /// Whether the text of the element is "true" or "1". Throws as above, and when it is no truth value.
    bool getXPathBoolValue(const char* xpath);

    /// Gives the one element that @p xpath finds the text @p value, in memory. Throws as above, and when XML has no
    /// form for @p value.
    void setXPathElement(const char* xpath, const char* value);

    /// Replaces the file at @p path whole. @return false when that cannot be done; @p path is not written to.
    bool SaveToFile(char* path);

private:
    const std::unique_ptr<XmlFile> m_file;
};
