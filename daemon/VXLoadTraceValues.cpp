#include "daemon/VXLoadTraceValues.h"

#include "base/Singleton.h"
#include "daemon/Trace.h"
#include "platform/hvbhelpers/HVBHelpers.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>

namespace Sentrel {

xmlDocPtr xmlDocRef = nullptr;
VXLoadTraceValues* VXLoadTraceValues::m_pSelf = nullptr;
boost::mutex VXLoadTraceValues::m_instanceMutex;

namespace {

/// A flow of the level file: where its number stands, where it goes, and the line that reports it.
struct Flow {
    const char* xpath;
    std::int32_t& level;
    void (*report)();
};

#define SENTREL_FLOW(flow)                                                                                             \
    Flow {                                                                                                             \
        "/TraceValues/" #flow, flow##value, [] { ST_TRACE(flow, 2, L"Trace value of " #flow " = %d\n", flow##value); } \
    }

const std::array<Flow, 12> kFlows{
    SENTREL_FLOW(stDaemonFlow), SENTREL_FLOW(configFlow),    SENTREL_FLOW(loggerFlow),       SENTREL_FLOW(stCmdFlow),
    SENTREL_FLOW(hcFlow),       SENTREL_FLOW(cmdHelperFlow), SENTREL_FLOW(regHelperFlow),    SENTREL_FLOW(hvInitFlow),
    SENTREL_FLOW(hvCommFlow),   SENTREL_FLOW(mgsFlow),       SENTREL_FLOW(safariPluginFlow), SENTREL_FLOW(ipcFlow),
};

#undef SENTREL_FLOW

/// The newest of all documents, each with the one before it in its _private. None is freed, as somebody may be reading
/// it; none is lost either.
xmlDocPtr newestDocument = nullptr;

void reportUnreadable(const std::string& path) {
    static_cast<void>(std::fprintf(stderr, "Error: unable to parse file \"%s\"\n", path.c_str()));
}

void ignoreError(void* /*context*/, xmlErrorPtr /*error*/) {}

/// Parses without the parser's own messages: our one line reports what went wrong.
xmlDocPtr parseQuietly(const std::string& path) {
    xmlSetStructuredErrorFunc(nullptr, ignoreError);
    xmlDocPtr document = xmlParseFile(path.c_str());
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    return document;
}

struct FreeContext {
    void operator()(xmlXPathContextPtr context) const { xmlXPathFreeContext(context); }
};
struct FreeObject {
    void operator()(xmlXPathObjectPtr object) const { xmlXPathFreeObject(object); }
};

} // namespace

VXLoadTraceValues* VXLoadTraceValues::getInstance() {
    return instanceOf(m_pSelf, m_instanceMutex, [] { return new VXLoadTraceValues; });
}

void VXLoadTraceValues::releaseInstance() {
    releaseInstanceOf(m_pSelf, m_instanceMutex);
}

void VXLoadTraceValues::loadTraceValues(const std::string& path) {
    try {
        xmlDocRef = parseQuietly(path);
        if (xmlDocRef == nullptr) {
            reportUnreadable(path);
            return;
        }
        xmlDocRef->_private = newestDocument;
        newestDocument = xmlDocRef;
        for (const Flow& flow : kFlows) {
            try {
                flow.level = static_cast<std::int32_t>(getXPathUnsignedLongValue(flow.xpath));
            } catch (const std::exception&) {
                // No usable number: the flow keeps its level.
            }
            flow.report();
        }
    } catch (...) {
        reportUnreadable(path);
    }
}

unsigned long VXLoadTraceValues::getXPathUnsignedLongValue(const char* xpath) {
    const std::string text = getXPathElement(xpath);
    if (text.empty()) {
        throw std::exception();
    }
    constexpr int decimal = 10;
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), nullptr, decimal);
    if (errno != 0) {
        throw std::exception();
    }
    return value;
}

std::string VXLoadTraceValues::getXPathElement(const char* xpath) {
    const std::unique_ptr<xmlXPathContext, FreeContext> context(xmlXPathNewContext(xmlDocRef));
    if (context == nullptr) {
        static_cast<void>(std::fputs("Error: unable to create new XPath context\n", stderr));
        return {};
    }
    const auto* expression = reinterpret_cast<const xmlChar*>(xpath);
    const std::unique_ptr<xmlXPathObject, FreeObject> object(xmlXPathEvalExpression(expression, context.get()));
    if (object == nullptr) {
        return {};
    }
    const xmlNodeSet* nodes = object->nodesetval;
    if (nodes == nullptr) {
        static_cast<void>(std::fprintf(stderr, "Error: unable to evaluate xpath expression \"%s\"\n", xpath));
        return {};
    }
    // An element that occurs twice counts as missing, and so does an empty one.
    if (nodes->nodeNr != 1 || nodes->nodeTab[0]->children == nullptr) {
        return {};
    }
    const xmlChar* content = nodes->nodeTab[0]->children->content;
    return content != nullptr ? reinterpret_cast<const char*>(content) : "";
}

} // namespace Sentrel
