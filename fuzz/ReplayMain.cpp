// Runs a fuzz target over every file of a corpus, so that what was once found stays mended in every build.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

// NOLINTNEXTLINE(readability-redundant-declaration): the target's, which is linked in
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
        std::fputs("usage: replay CORPUS-DIRECTORY\n", stderr);
        return 2;
    }
    std::size_t inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        if (!entry.is_regular_file() || !file) {
            std::fprintf(stderr, "%s: cannot be replayed\n", entry.path().c_str());
            return 1;
        }
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++inputs;
    }
    std::printf("replayed %zu inputs of %s\n", inputs, argv[1]);
    if (inputs == 0) {
        std::fputs("an empty corpus proves nothing\n", stderr);
        return 1;
    }
    return 0;
}
