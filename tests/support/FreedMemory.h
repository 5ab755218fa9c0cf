// What a program leaves in the memory that it gives back: the operators new and delete of a program that links this.
#pragma once

#include <cstddef>
#include <string>

namespace testing_support {

/// While it lives, every block that operator delete gets on this thread is looked through for a text.
/// Threads: plain. Owner: the test; one at a time.
class FreedMemory {
public:
    /// @param smallest blocks of fewer bytes are not looked at.
    explicit FreedMemory(std::string text, std::size_t smallest = 0);
    ~FreedMemory();
    FreedMemory(const FreedMemory&) = delete;
    FreedMemory& operator=(const FreedMemory&) = delete;

    /// In how many blocks the text stood.
    std::size_t found() const { return m_found; }

    void look(const char* block, std::size_t bytes);

private:
    const std::string m_text;
    const std::size_t m_smallest;
    std::size_t m_found = 0;
};

} // namespace testing_support
