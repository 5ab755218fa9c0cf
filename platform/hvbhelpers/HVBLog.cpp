#include "platform/hvbhelpers/HVBHelpers.h"

#include "platform/hvbhelpers/Broker.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>

std::int32_t cmdHelperFlowvalue = 0;
std::int32_t regHelperFlowvalue = 0;
std::int32_t hvInitFlowvalue = 0;
std::int32_t hvCommFlowvalue = 0;

namespace {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
struct Free {
    void operator()(wchar_t* text) const noexcept { std::free(text); }
};

std::wstring formatted(const wchar_t* format, std::va_list arguments) {
    wchar_t* buffer = nullptr;
    std::size_t size = 0;
    std::unique_ptr<std::FILE, CloseFile> file(::open_wmemstream(&buffer, &size));
    if (file == nullptr) {
        throw HVB::HVBException(-ENOMEM, "no memory to format a log line");
    }
    // The caller has started the list; the checker looks at this function alone.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int written = std::vfwprintf(file.get(), format, arguments);
    file.reset();
    const std::unique_ptr<wchar_t, Free> text(buffer);
    if (written < 0) {
        throw HVB::HVBException(-EILSEQ, "a log line cannot be formatted");
    }
    return {text.get(), size};
}

} // namespace

void HVB_LOG_MSG(int moduleId, const wchar_t* moduleName, HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level,
                 const wchar_t* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::wstring line;
    try {
        line = formatted(format, arguments);
    } catch (...) {
        va_end(arguments);
        throw;
    }
    va_end(arguments);
    HVB::detail::currentBroker()->sendLogMessage(moduleId, moduleName != nullptr ? moduleName : L"", type, level, line);
}
