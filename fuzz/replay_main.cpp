// Feeds files, or all files of folders, to a fuzz target: the committed corpus as an ordinary test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::size_t replayed = 0;

void replay(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    // A copy of exactly the input's size, so that a sanitizer sees a step beyond it.
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++replayed;
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i]))
            for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
                if (entry.is_regular_file())
                    replay(entry.path());
            }
        else
            replay(argv[i]);
    }
    std::printf("%zu inputs replayed\n", replayed);
    return replayed == 0 ? 1 : 0;
}
