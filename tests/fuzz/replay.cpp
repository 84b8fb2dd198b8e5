// Feeds files to a target without a fuzzer: the small corpora as tests, or a single input that was found.
//   TARGET [FILE or DIRECTORY...]
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "input.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

size_t count;

void feed(const std::filesystem::path &path) {
    std::ifstream           file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    MUST(file.good() || file.eof());

    // A copy of exactly this size, so that a look behind it is noticed.
    std::vector<uint8_t> copy(bytes.begin(), bytes.end());
    copy.shrink_to_fit();
    (void)LLVMFuzzerTestOneInput(copy.data(), copy.size());
    ++count;
}

}  // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize) (void)LLVMFuzzerInitialize(&argc, &argv);
    (void)LLVMFuzzerTestOneInput(nullptr, 0);
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            feed(argv[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) feed(entry.path());
    }
    fprintf(stderr, "%zu inputs replayed\n", count);
    return argc > 1 && count == 0 ? 1 : 0;
}
