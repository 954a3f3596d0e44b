// Runs a fuzz target over saved inputs without libFuzzer, so that every build
// replays the corpus and its regression inputs as an ordinary test.
//   <target> FILE_OR_DIR...
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    std::error_code error;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i], error)) files.push_back(argv[i]);
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i], error))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());  // the same order on every run
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        if (!in) {
            fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
