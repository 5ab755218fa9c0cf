// Reads the levels of the trace flows from the level file.
#pragma once

#include <libxml/tree.h>

#include <boost/thread/mutex.hpp>
#include <string>

namespace Sentrel {

/// The document last parsed from the level file; null when that failed. Documents are never freed, a few kilobytes a
/// reload.
extern xmlDocPtr xmlDocRef;

/// Loads the trace levels. The level file is an XML document with the root element TraceValues and one child element
/// a flow, named as the flow, whose text is a decimal number.
/// Threads: one load at a time; the controller's start and the SIGHUP handler are the callers.
/// Owner: a singleton, created by VXController::main and released by the controller's destructor.
class VXLoadTraceValues {
public:
    static VXLoadTraceValues* getInstance();
    static void releaseInstance();
    virtual ~VXLoadTraceValues() = default;

    /// Assigns the level of each flow that the file names once, and leaves the others as they are. Reports a file that
    /// is missing or not well formed in one line on stderr, as the log may not be open. Does not throw.
    void loadTraceValues(const std::string& path);

    /// The number at @p xpath in xmlDocRef. Trailing text is ignored, and no range is checked.
    /// @throws std::exception when there is no such element, more than one, or a number that is out of range.
    unsigned long getXPathUnsignedLongValue(const char* xpath);

    /// The text at @p xpath in xmlDocRef; empty when there is no such element, more than one, or one without text.
    std::string getXPathElement(const char* xpath);

private:
    static VXLoadTraceValues* m_pSelf;
    static boost::mutex m_instanceMutex;
};

} // namespace Sentrel
