// Runs a fuzz target over files, for builds without a fuzzing engine: each argument is a file or a folder.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

void Run(std::filesystem::path const& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::vector<char> const content((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(content.data()), content.size());
}

} // namespace

int main(int count, char** arguments)
{
    unsigned runs = 0;
    for (int index = 1; index < count; ++index) {
        std::filesystem::path const path(arguments[index]);
        if (!std::filesystem::is_directory(path)) {
            Run(path);
            ++runs;
            continue;
        }
        for (auto const& entry : std::filesystem::recursive_directory_iterator(path)) {
            if (entry.is_regular_file()) {
                Run(entry.path());
                ++runs;
            }
        }
    }
    std::printf("%u inputs replayed\n", runs);
    return runs != 0 ? 0 : 1;
}
