// replay - runs a fuzz target on the files of a folder, without a fuzzer. The tests run it on the target's
// corpus.
//
//   replay FOLDER
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize);

int main(int iCount, char **ppszArgument) {
    unsigned int uiFiles = 0;
    for (const auto &entry : std::filesystem::directory_iterator(iCount > 1 ? ppszArgument[1] : ".")) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::printf("%s\n", entry.path().c_str()); // if a file ends the run, the last line names it
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
        uiFiles++;
    }
    return uiFiles > 0 ? 0 : 1;
}
