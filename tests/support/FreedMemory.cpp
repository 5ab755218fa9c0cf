#include "tests/support/FreedMemory.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

namespace {

thread_local testing_support::FreedMemory* watching = nullptr;

void giveBack(void* block) noexcept {
    if (watching != nullptr && block != nullptr) {
        watching->look(static_cast<const char*>(block), malloc_usable_size(block));
    }
    std::free(block);
}

} // namespace

namespace testing_support {

FreedMemory::FreedMemory(std::string text, std::size_t smallest) : m_text(std::move(text)), m_smallest(smallest) {
    watching = this;
}

FreedMemory::~FreedMemory() {
    watching = nullptr;
}

void FreedMemory::look(const char* block, std::size_t bytes) {
    const bool isThere = bytes >= m_smallest && std::string_view(block, bytes).find(m_text) != std::string_view::npos;
    m_found += isThere ? 1 : 0;
}

} // namespace testing_support

void* operator new(std::size_t size) {
    void* memory = std::malloc(std::max<std::size_t>(size, 1));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// A sanitizer's own would not go with the delete below.
void* operator new(std::size_t size, const std::nothrow_t& /*none*/) noexcept {
    return std::malloc(std::max<std::size_t>(size, 1));
}

void operator delete(void* memory) noexcept {
    giveBack(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    giveBack(memory);
}
