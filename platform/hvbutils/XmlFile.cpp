// The text of the file is kept beside the parsed document, and a change is made in the text, which is then parsed
// again. So what was not changed keeps its bytes (quotes, entities, "<a></a>" against "<a/>", line ends, the
// declaration), which libxml2's own writer would make alike, and nothing is ever saved that cannot be read.
//
// A file is read within the bounds of ConfigurationLimits.h and replaced in one step, so that a reader finds the old
// text or the new one.
#include "platform/hvbutils/XmlFile.h"

#include "base/FileWriting.h"
#include "base/PrintableText.h"
#include "platform/hvbutils/ConfigurationLimits.h"

#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xpath.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <mutex>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace {

[[noreturn]] void refuse(const std::string& path, std::string_view why) {
    throw LibXmlError(Sentrel::text::printable(path), Sentrel::text::printable(why));
}

std::string_view textOf(const xmlChar* text) {
    return text != nullptr ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void ignoreMessage(void* /*context*/, const char* /*format*/, ...) {}

/// Takes the library's messages of this thread while it lives, and so keeps them off stderr.
/// Threads: the one that made it. Owner: a function's stack.
class Messages {
public:
    Messages() {
        xmlSetGenericErrorFunc(nullptr, ignoreMessage);
        xmlSetStructuredErrorFunc(this, keep);
    }
    ~Messages() {
        xmlSetGenericErrorFunc(m_genericContext, m_generic);
        xmlSetStructuredErrorFunc(m_structuredContext, m_structured);
    }
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Returns the first message of the highest severity, since the others most often follow from it.
    std::string worst() const { return m_message.empty() ? "unknown error" : m_message; }
    int line() const { return m_line; }

private:
    static void keep(void* self, xmlErrorPtr error) {
        auto& messages = *static_cast<Messages*>(self);
        if (error->level > messages.m_level && error->message != nullptr) {
            messages.m_level = error->level;
            messages.m_line = error->line;
            messages.m_message = trimmed(error->message);
            std::replace(messages.m_message.begin(), messages.m_message.end(), '\n', ' ');
        }
    }

    std::string m_message;
    int m_line = 0;
    int m_level = XML_ERR_NONE;

    void* const m_genericContext = xmlGenericErrorContext;
    const xmlGenericErrorFunc m_generic = xmlGenericError;
    void* const m_structuredContext = xmlStructuredErrorContext;
    const xmlStructuredErrorFunc m_structured = xmlStructuredError;
};

/// Where an element is in the text.
struct Place {
    std::size_t startTagEnd = 0; ///< the '>' of the start tag, or the '/' of an empty element's only tag
    std::size_t end = 0;         ///< behind the element
};
using Places = std::unordered_map<const xmlNode*, Place>;

/// What the parser's callbacks find out beside the document.
struct Findings {
    Places places;
    bool hasDocumentType = false;
    int tooDeepAtLine = 0;    ///< 0 when nothing nests too deep
    bool isConverted = false; ///< the parser reads a converted text, in which places mean nothing
};

Findings& findingsOf(xmlParserCtxt& parser) {
    return *static_cast<Findings*>(parser._private);
}

std::size_t position(xmlParserCtxt& parser) {
    const xmlParserInput& input = *parser.input;
    findingsOf(parser).isConverted |= input.buf != nullptr && input.buf->encoder != nullptr;
    return input.consumed + static_cast<std::size_t>(input.cur - input.base);
}

void onStart(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int namespaceCount,
             const xmlChar** namespaces, int attributeCount, int defaultedCount, const xmlChar** attributes) {
    auto& parser = *static_cast<xmlParserCtxt*>(context);
    if (parser.nodeNr >= kMaxConfigDepth) {
        findingsOf(parser).tooDeepAtLine = parser.input->line;
        xmlStopParser(&parser);
        return;
    }
    xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount, namespaces, attributeCount, defaultedCount,
                          attributes);
    findingsOf(parser).places[parser.node].startTagEnd = position(parser);
}

void onEnd(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri) {
    auto& parser = *static_cast<xmlParserCtxt*>(context);
    findingsOf(parser).places[parser.node].end = position(parser);
    xmlSAX2EndElementNs(context, name, prefix, uri);
}

/// Ends the parse before any declaration is read, so that no entity exists, let alone grows.
void onDocumentType(void* context, const xmlChar* /*name*/, const xmlChar* /*publicId*/, const xmlChar* /*systemId*/) {
    auto& parser = *static_cast<xmlParserCtxt*>(context);
    findingsOf(parser).hasDocumentType = true;
    xmlStopParser(&parser);
}

struct FreeParser {
    void operator()(xmlParserCtxt* parser) const noexcept { xmlFreeParserCtxt(parser); }
};
struct FreeDocument {
    void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};
struct FreeXPathContext {
    void operator()(xmlXPathContext* context) const noexcept { xmlXPathFreeContext(context); }
};
struct FreeXPathObject {
    void operator()(xmlXPathObject* object) const noexcept { xmlXPathFreeObject(object); }
};
struct FreeText {
    void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
using ParserPtr = std::unique_ptr<xmlParserCtxt, FreeParser>;
using DocumentPtr = std::unique_ptr<xmlDoc, FreeDocument>;
using XPathObjectPtr = std::unique_ptr<xmlXPathObject, FreeXPathObject>;

/// A parser that notes its findings and refuses document types.
ParserPtr makeParser(const std::string& path, Findings& findings) {
    static std::once_flag libraryIsReady;
    std::call_once(libraryIsReady, xmlInitParser);
    ParserPtr parser(xmlNewParserCtxt());
    if (parser == nullptr) {
        refuse(path, "no memory");
    }
    parser->_private = &findings;
    parser->sax->startElementNs = onStart;
    parser->sax->endElementNs = onEnd;
    parser->sax->internalSubset = onDocumentType;
    return parser;
}

DocumentPtr parse(const std::string& path, const std::string& text, Findings& findings) {
    const Messages messages;
    const ParserPtr parser = makeParser(path, findings);
    // NONET and neither NOENT, DTDLOAD, XINCLUDE nor HUGE: nothing from outside, and the library's own bounds too.
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    DocumentPtr document(
        xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr, options));
    if (findings.hasDocumentType) {
        refuse(path, "a document type is not allowed here");
    }
    if (findings.tooDeepAtLine > 0) {
        refuse(path, fmt::format("line {}: nests deeper than {} elements", findings.tooDeepAtLine, kMaxConfigDepth));
    }
    if (document == nullptr) {
        refuse(path, fmt::format("line {}: {}", messages.line(), messages.worst()));
    }
    return document;
}

std::string tooLarge() {
    return fmt::format("larger than {} bytes", kMaxConfigFileBytes);
}

std::string whyUnreadable(const std::error_code& code, XmlFile::Links links) {
    switch (code.value()) {
    case ELOOP:
        return links == XmlFile::Links::Refuse ? "a symbolic link, which is not followed here" : code.message();
    case EINVAL:
        return "not a regular file";
    case EFBIG:
        return tooLarge();
    default:
        return code.message();
    }
}

std::string fileText(const std::string& path, XmlFile::Links links) {
    try {
        return Sentrel::readRegularFile(path, kMaxConfigFileBytes, Sentrel::FileAccess::Anybody, links);
    } catch (const Sentrel::UnsafeFile&) {
        refuse(path, "a symbolic link to a file that not every user may read");
    } catch (const std::system_error& error) {
        refuse(path, whyUnreadable(error.code(), links));
    }
}

/// The end of a reason that is to be looked for in a line; nothing when that is not known.
std::string inLine(long line) {
    return line > 0 ? fmt::format(", line {}", line) : "";
}

/// As it stands in the element's tags.
std::string nameOf(const xmlNode& element) {
    const std::string_view prefix = element.ns != nullptr ? textOf(element.ns->prefix) : std::string_view();
    return fmt::format("{}{}{}", prefix, prefix.empty() ? "" : ":", textOf(element.name));
}

int countOf(const xmlXPathObject& found) {
    return found.type == XPATH_NODESET ? xmlXPathNodeSetGetLength(found.nodesetval) : 0;
}

std::string escaped(const std::string& path, const char* value) {
    const std::unique_ptr<xmlChar, FreeText> text(
        xmlEncodeSpecialChars(nullptr, reinterpret_cast<const xmlChar*>(value)));
    if (text == nullptr) {
        refuse(path, "no memory");
    }
    return std::string(textOf(text.get()));
}

} // namespace

struct XmlFile::Document {
    Document(const std::string& filePath, std::string content)
        : path(filePath), text(std::move(content)), tree(parse(path, text, findings)) {}

    XPathObjectPtr find(const char* xpath) const;
    const xmlNode& element(const char* xpath) const;
    long lineOfGap(const char* xpath) const;
    std::string valueOf(const xmlNode& node, const char* xpath) const;
    std::string textWith(const xmlNode& node, const char* value) const;

    const std::string path;
    const std::string text;
    Findings findings;
    const DocumentPtr tree;
};

XPathObjectPtr XmlFile::Document::find(const char* xpath) const {
    if (xpath == nullptr) {
        refuse(path, "no XPath was given");
    }
    const Messages messages;
    const std::unique_ptr<xmlXPathContext, FreeXPathContext> context(xmlXPathNewContext(tree.get()));
    if (context == nullptr) {
        refuse(path, "no memory");
    }
    XPathObjectPtr found(xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath), context.get()));
    if (found == nullptr) {
        refuse(path, fmt::format("{}: {}", xpath, messages.worst()));
    }
    return found;
}

const xmlNode& XmlFile::Document::element(const char* xpath) const {
    const XPathObjectPtr found = find(xpath);
    const int count = countOf(*found);
    if (count == 0) {
        refuse(path, fmt::format("{}: finds nothing{}", xpath, inLine(lineOfGap(xpath))));
    }
    if (count > 1) {
        refuse(path, fmt::format("{}: finds several{}", xpath, inLine(xmlGetLineNo(found->nodesetval->nodeTab[1]))));
    }
    if (found->nodesetval->nodeTab[0]->type != XML_ELEMENT_NODE) {
        refuse(path, fmt::format("{}: finds no element", xpath));
    }
    return *found->nodesetval->nodeTab[0];
}

/// The line where the one parent of what @p xpath does not find ends: up to there it is missing. 0 when that is not
/// known.
long XmlFile::Document::lineOfGap(const char* xpath) const {
    const std::string_view whole(xpath);
    const std::size_t lastStep = whole.rfind('/');
    if (findings.isConverted || lastStep == 0 || lastStep == std::string_view::npos) {
        return 0;
    }
    try {
        const xmlNode& parent = element(std::string(whole.substr(0, lastStep)).c_str());
        const auto end = static_cast<std::ptrdiff_t>(findings.places.at(&parent).end);
        return 1 + std::count(text.begin(), text.begin() + end, '\n');
    } catch (const LibXmlError&) {
        return 0; // what is left of it is no path to one element
    }
}

std::string XmlFile::Document::valueOf(const xmlNode& node, const char* xpath) const {
    std::string value;
    for (const xmlNode* part = node.children; part != nullptr; part = part->next) {
        if (part->type == XML_TEXT_NODE || part->type == XML_CDATA_SECTION_NODE) {
            value += textOf(part->content);
        } else if (part->type != XML_COMMENT_NODE) {
            refuse(path, fmt::format("{}: holds more than a text{}", xpath, inLine(xmlGetLineNo(part))));
        }
    }
    return value;
}

std::string XmlFile::Document::textWith(const xmlNode& node, const char* value) const {
    if (findings.isConverted) {
        refuse(path, fmt::format("only UTF-8 can be changed, not {}", textOf(tree->encoding)));
    }
    const Place place = findings.places.at(&node);
    if (text.at(place.startTagEnd) == '/') {
        return fmt::format("{}>{}</{}>{}", std::string_view(text).substr(0, place.startTagEnd), escaped(path, value),
                           nameOf(node), std::string_view(text).substr(place.end));
    }
    return fmt::format("{}{}{}", std::string_view(text).substr(0, place.startTagEnd + 1), escaped(path, value),
                       std::string_view(text).substr(text.rfind("</", place.end - 1)));
}

XmlFile::XmlFile(std::string path, Links links)
    : m_path(std::move(path)), m_document(std::make_unique<Document>(m_path, fileText(m_path, links))) {}

XmlFile::~XmlFile() = default;

bool XmlFile::finds(const char* xpath) const {
    return countOf(*m_document->find(xpath)) > 0;
}

std::string XmlFile::textAt(const char* xpath) const {
    return m_document->valueOf(m_document->element(xpath), xpath);
}

bool XmlFile::truthAt(const char* xpath) const {
    const xmlNode& element = m_document->element(xpath);
    const std::string value = m_document->valueOf(element, xpath);
    const std::string_view word = trimmed(value);
    const bool isTrue = word == "true" || word == "1";
    if (!isTrue && word != "false" && word != "0") {
        refuse(m_path,
               fmt::format("{}: \"{}\" is neither true nor false{}", xpath, word, inLine(xmlGetLineNo(&element))));
    }
    return isTrue;
}

void XmlFile::setTextAt(const char* xpath, const char* value) {
    const xmlNode& element = m_document->element(xpath);
    if (value == nullptr) {
        refuse(m_path, fmt::format("{}: no value was given", xpath));
    }
    if (m_document->valueOf(element, xpath) == value) {
        return;
    }
    std::string text = m_document->textWith(element, value);
    if (text.size() > kMaxConfigFileBytes) {
        refuse(m_path, tooLarge());
    }
    auto changed = std::make_unique<Document>(m_path, std::move(text));
    if (changed->valueOf(changed->element(xpath), xpath) != value) {
        refuse(m_path, fmt::format("{}: XML has no form for this value", xpath));
    }
    m_document = std::move(changed);
}

bool XmlFile::saveTo(const char* path) const {
    if (path == nullptr) {
        return false;
    }
    try {
        Sentrel::replaceFile(path, m_document->text, Sentrel::Replace::KeepingModeAndOwner);
        return true;
    } catch (const std::system_error& error) {
        syslog(LOG_WARNING, "%s", error.what()); // its interface says no more than that it failed
        return false;
    }
}
