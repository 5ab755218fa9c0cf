#include "apps/hvbd/ModuleConfiguration.h"

#include "apps/hvbd/Limits.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

namespace HVB::hub {
namespace {

struct FreeDocument {
    void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};
struct FreeContext {
    void operator()(xmlParserCtxt* context) const noexcept { xmlFreeParserCtxt(context); }
};
using DocumentPtr = std::unique_ptr<xmlDoc, FreeDocument>;

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw ConfigurationError(fmt::format("{}: {}", path, why));
}

[[noreturn]] void refuseErrno(const std::string& path) {
    refuse(path, std::system_category().message(errno));
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

/// The text of the first child of that name; none when there is no such child.
std::optional<std::string> childText(const xmlNode& parent, std::string_view name, const std::string& path) {
    for (const xmlNode* child = parent.children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE || textOf(child->name) != name) {
            continue;
        }
        std::string text;
        for (const xmlNode* part = child->children; part != nullptr; part = part->next) {
            if (part->type == XML_TEXT_NODE || part->type == XML_CDATA_SECTION_NODE) {
                text += textOf(part->content);
            } else if (part->type != XML_COMMENT_NODE) {
                refuse(path, fmt::format("{} holds more than a text", name));
            }
        }
        return std::string(trimmed(text));
    }
    return std::nullopt;
}

DocumentPtr parse(std::string_view xml, const std::string& path) {
    const std::unique_ptr<xmlParserCtxt, FreeContext> context(xmlNewParserCtxt());
    if (context == nullptr) {
        refuse(path, "no memory");
    }
    // Neither entities nor anything outside the file: NONET, and no NOENT, DTDLOAD or XINCLUDE.
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    DocumentPtr document(
        xmlCtxtReadMemory(context.get(), xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, options));
    if (document == nullptr) {
        const xmlError* error = xmlCtxtGetLastError(context.get());
        refuse(path, error == nullptr || error->message == nullptr
                         ? std::string("not well-formed XML")
                         : fmt::format("line {}: {}", error->line, trimmed(error->message)));
    }
    if (document->intSubset != nullptr) {
        refuse(path, "a document type is not allowed here");
    }
    return document;
}

bool parseSwitch(const std::string& text, const std::string& path) {
    if (text != "true" && text != "false") {
        refuse(path, fmt::format("SyslogEnable is \"{}\" and not \"true\" or \"false\"", text));
    }
    return text == "true";
}

hv_logLevel_enum parseLevel(const std::string& text, const std::string& path) {
    constexpr std::array<std::pair<std::string_view, hv_logLevel_enum>, 7> levels{{
        {"error", LOG_LEVEL_ERROR},
        {"warning", LOG_LEVEL_WARNING},
        {"information", LOG_LEVEL_INFORMATION},
        {"debug", LOG_LEVEL_DEBUG},
        {"verbose", LOG_LEVEL_DEBUG},
        {"audit", LOG_LEVEL_DEBUG},
        {"alert", LOG_LEVEL_DEBUG},
    }};
    for (const auto& [word, level] : levels) {
        if (text == word) {
            return level;
        }
    }
    refuse(path, fmt::format("LogLevel is \"{}\" and not one of the known levels", text));
}

std::string contentOf(const std::string& path) {
    // NONBLOCK: a FIFO put in its place must not hold us up.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat facts {};
    if (file.get() < 0 || fstat(file.get(), &facts) != 0) {
        refuseErrno(path);
    }
    if (!S_ISREG(facts.st_mode)) {
        refuse(path, "not a regular file");
    }
    std::string content(kMaxConfigurationBytes + 1, '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const ssize_t got = read(file.get(), content.data() + size, content.size() - size);
        if (got < 0) {
            refuseErrno(path);
        }
        if (got == 0) {
            break;
        }
        size += static_cast<std::size_t>(got);
    }
    if (size > kMaxConfigurationBytes) {
        refuse(path, fmt::format("larger than {} bytes", kMaxConfigurationBytes));
    }
    content.resize(size);
    return content;
}

} // namespace

ModuleConfiguration parseModuleConfiguration(std::string_view xml, const std::string& path) {
    const DocumentPtr document = parse(xml, path);
    const xmlNode* root = xmlDocGetRootElement(document.get());
    if (root == nullptr || textOf(root->name) != "HVConfiguration") {
        refuse(path, "the outermost element is not HVConfiguration");
    }
    ModuleConfiguration configuration;
    if (const auto text = childText(*root, "SyslogEnable", path)) {
        configuration.syslogEnabled = parseSwitch(*text, path);
    }
    if (const auto text = childText(*root, "LogLevel", path)) {
        configuration.level = parseLevel(*text, path);
    }
    return configuration;
}

ModuleConfiguration readModuleConfiguration(const std::string& path) {
    return parseModuleConfiguration(contentOf(path), path);
}

ModuleConfiguration ModuleConfigurations::reload(int moduleId) {
    const auto file = m_files.find(moduleId);
    if (file == m_files.end()) {
        throw ConfigurationError(fmt::format("module {} has no configuration that hvbd knows", moduleId));
    }
    // Reading stays inside the lock: of two reloads the later one's file content is what remains.
    const std::lock_guard lock(m_mutex);
    const ModuleConfiguration configuration = readModuleConfiguration(file->second);
    m_inForce[moduleId] = configuration;
    return configuration;
}

ModuleConfiguration ModuleConfigurations::of(int moduleId) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_inForce.find(moduleId);
    return found != m_inForce.end() ? found->second : ModuleConfiguration{};
}

} // namespace HVB::hub
