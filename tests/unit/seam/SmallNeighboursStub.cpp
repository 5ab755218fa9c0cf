// The small neighbours as the daemon may ask for them: the hub's configuration files, the trace library, the desktop's
// language and the system's console user. Declared here a second time, and not from the headers that the daemon
// includes. They link; they do nothing.
#include <sys/types.h>

#include <string>

class LibXmlWrapper {
public:
    LibXmlWrapper(std::string path);
    ~LibXmlWrapper();
    std::string getXPathStringValue(const char* xpath);
    bool getXPathBoolValue(const char* xpath);
    void setXPathElement(const char* xpath, const char* value);
    bool SaveToFile(char* path);
};

// The forms are what was agreed.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
LibXmlWrapper::LibXmlWrapper(std::string /*path*/) {}
LibXmlWrapper::~LibXmlWrapper() {}
std::string LibXmlWrapper::getXPathStringValue(const char* /*xpath*/) {
    return {};
}
bool LibXmlWrapper::getXPathBoolValue(const char* /*xpath*/) {
    return false;
}
void LibXmlWrapper::setXPathElement(const char* /*xpath*/, const char* /*value*/) {}
bool LibXmlWrapper::SaveToFile(char* /*path*/) {
    return false;
}

void LogMsg(int level, const char* format, ...);
void LogMsg(int /*level*/, const char* /*format*/, ...) {}

namespace MacUtils {

class CFHelper {
public:
    static std::wstring GetLanguage();
};

std::wstring CFHelper::GetLanguage() {
    return {};
}

} // namespace MacUtils

// These three are the operating system's: plain C.
extern "C" {

const void* SCDynamicStoreCopyConsoleUser(const void* store, uid_t* uid, gid_t* gid);
const void* SCDynamicStoreCopyConsoleUser(const void* /*store*/, uid_t* /*uid*/, gid_t* /*gid*/) {
    return nullptr;
}

bool CFStringGetCString(const void* string, char* buffer, long bufferSize, unsigned encoding);
bool CFStringGetCString(const void* /*string*/, char* /*buffer*/, long /*bufferSize*/, unsigned /*encoding*/) {
    return false;
}

void CFRelease(const void* object);
void CFRelease(const void* /*object*/) {}

} // extern "C"
