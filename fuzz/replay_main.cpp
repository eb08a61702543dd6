// Runs a fuzz target once over every file of the corpus folders given on the command line, so
// that the ordinary and sanitizer builds replay the committed seeds (and any crash input that
// was added to them) without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i], ec)) {
            if (!entry.is_regular_file())
                continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++runs;
        }
        if (ec) {
            std::fprintf(stderr, "cannot read %s: %s\n", argv[i], ec.message().c_str());
            return 1;
        }
    }
    std::printf("%zu inputs replayed\n", runs);
    return runs > 0 ? 0 : 1;
}
