// Runs a fuzz target once over each file of the given corpus directories,
// built with the normal compiler, so that a seed that stops passing fails
// the test suite. A failing input aborts inside the target, as under the
// fuzzer; the line printed before it names the file.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR...\n", argv[0]);
        return 2;
    }
    size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        std::vector<std::filesystem::path> files;
        for (const auto &e : std::filesystem::directory_iterator(argv[i], ec)) {
            if (e.is_regular_file())
                files.push_back(e.path());
        }
        if (ec || files.empty()) {
            fprintf(stderr, "%s: no seed files in '%s'\n", argv[0], argv[i]);
            return 1;
        }
        std::sort(files.begin(), files.end());
        for (const auto &path : files) {
            std::ifstream in(path, std::ios::binary);
            std::string data((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
            if (!in.good() && !in.eof()) {
                fprintf(stderr, "%s: can't read '%s'\n", argv[0], path.c_str());
                return 1;
            }
            printf("seed %s\n", path.c_str());
            fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()), data.size());
            ++runs;
        }
    }
    printf("%zu seeds passed\n", runs);
    return 0;
}
