#include "base/TextConversion.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <iconv.h>
#include <vector>

namespace {

static_assert(sizeof(wchar_t) == 4, "wide characters are UCS-4");
constexpr std::size_t kBytesPerCharacter = 6; // callers size their buffers by it

/// Converts as much of the input as can be. @return where the output ended.
char* converted(const char* to, const char* from, const char* input, std::size_t inputBytes, char* output,
                std::size_t room) {
    iconv_t conversion = iconv_open(to, from);
    constexpr std::intptr_t failed = -1;
    if (std::bit_cast<std::intptr_t>(conversion) == failed) {
        return output;
    }
    char* in = const_cast<char*>(input); // iconv(3) only reads it
    iconv(conversion, &in, &inputBytes, &output, &room);
    iconv_close(conversion);
    return output;
}

} // namespace

int char2widechar(const char* source, wchar_t* target, int* size) {
    if (source == nullptr || target == nullptr || size == nullptr) {
        return -1;
    }
    const std::size_t length = std::strlen(source);
    if (*size < 0 || static_cast<std::size_t>(*size) <= length) {
        return -1;
    }
    constexpr std::size_t spare = 12;
    std::vector<wchar_t> work(spare + kBytesPerCharacter * length, L'\0');
    converted("UCS-4LE", "UTF8", source, length + 1, reinterpret_cast<char*>(work.data()),
              (length + 1) * sizeof(wchar_t));
    std::wcscpy(target, work.data());
    return 0;
}

int widechar2charstr(const wchar_t* source, char* target, int* size) {
    if (source == nullptr || target == nullptr || *size <= 0) {
        return -1;
    }
    const std::size_t length = std::wcslen(source);
    const std::size_t room = kBytesPerCharacter * length;
    if (room + 1 > static_cast<std::size_t>(*size)) {
        return -1;
    }
    std::vector<char> work(room + 1, '\0');
    *converted("UTF8", "UCS-4LE", reinterpret_cast<const char*>(source), length * sizeof(wchar_t), work.data(), room) =
        '\0';
    std::memcpy(target, work.data(), std::strlen(work.data()) + 1);
    return 0;
}
