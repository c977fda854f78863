// replay - runs a fuzz target on the files of a folder, without a fuzzer: inputs that once found a fault.
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
        std::printf("%s\n", entry.path().c_str()); // the last line names the one that ended the run
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
        uiFiles++;
    }
    return uiFiles > 0 ? 0 : 1;
}
