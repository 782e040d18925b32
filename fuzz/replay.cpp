// Gives every file of the directories named to a fuzz target, once and in order: the corpus as a test, where
// there is no libFuzzer. A directory without a file fails, for it proves nothing.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

namespace fs = std::filesystem;

void replay(const fs::path &path)
{
    printf("%s\n", path.c_str());
    fflush(stdout); // so that the last line names the input that ends the process
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    bytes.shrink_to_fit(); // the address sanitizer sees the first byte read beyond it
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    for (int i = 1; i < argc; ++i) {
        const std::set<fs::path> files{fs::directory_iterator{argv[i]}, {}};
        if (files.empty()) {
            fprintf(stderr, "%s: no input\n", argv[i]);
            return 1;
        }
        for (const fs::path &file : files) {
            replay(file);
        }
    }
    return 0;
}
