#include "tests/support/files.h"

#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace zuTest {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder()
{
    std::random_device chance;
    for (int attempt = 0; attempt < 100; ++attempt) {
        path_ = fs::temp_directory_path() / ("zu-test-" + std::to_string(chance()));
        if (fs::create_directory(path_)) {
            fs::permissions(path_, fs::perms::owner_all);
            return;
        }
    }
    throw std::runtime_error("no temporary folder");
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code error;
    fs::remove_all(path_, error);
}

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace zuTest
