// Runs a fuzz target over saved inputs without libFuzzer, so that every build
// replays the corpus and its regression inputs as an ordinary test.
//   <target> FILE_OR_DIR...
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);

namespace {

void Collect(const std::string& aPath, std::vector<std::string>& aFiles) {
    if (DIR* dir = opendir(aPath.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') Collect(aPath + "/" + entry->d_name, aFiles);
        }
        closedir(dir);
    } else {
        aFiles.push_back(aPath);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) Collect(argv[i], files);
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
