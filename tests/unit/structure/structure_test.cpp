// Walks the sources for includes that go against the plan of the rooms, and for what belongs into platform/ alone.
#include "tests/support/files.h"
#include "tests/unit/structure/structure_rules.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <stdexcept>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zuTest::structure::Rules;

namespace {

const std::set<std::string> sourceEndings = {".h", ".hpp", ".ipp", ".c", ".cc", ".cpp", ".cxx", ".in"};

/// Rooms as a page may have them.
const char* const page = R"(
# A page

| another | table |
|---|---|
| `src/` | anything |

| folder | what lives there | may include |
|---|---|---|
| `platform/` | the system | nothing of ours |
| `base/inner/` | in `base/`, and not of it | `platform/` |
| `base/` | for `src/` | `platform/`: it has its own `format` of `stream`s |
| `src/` | the program | `base/`, `base/inner/`, `platform/` |
| `tools/a/`, `tools/b/` | two | `base/`, `platform/` |
| `tests/`, `bench/` | whatever | anything |

| `late/` | in no table | anything |
)";

std::vector<std::string> violations(const std::string& path, const std::string& text)
{
    return Rules(page).violations(path, text);
}

bool isForeignFolder(const fs::directory_entry& entry)
{
    const std::string name = entry.path().filename().string();
    return name.front() == '.' || fs::exists(entry.path() / "CMakeCache.txt") || name.rfind("build", 0) == 0;
}

} // namespace

TEST(Structure, SourcesKeepToTheRooms)
{
    const fs::path root = ZU_SOURCE_DIR;
    const Rules rules(zuTest::readFile(root / "ARCHITECTURE.md"));
    std::size_t files = 0;
    auto walk = fs::recursive_directory_iterator(root);
    for (const auto& entry : walk) {
        if (entry.is_directory()) {
            if (isForeignFolder(entry))
                walk.disable_recursion_pending();
            continue;
        }
        if (!sourceEndings.count(entry.path().extension().string()))
            continue;
        const std::string path = entry.path().lexically_relative(root).generic_string();
        const std::string text = zuTest::readFile(entry.path());
        ++files;
        const bool inFolder = path.find('/') != std::string::npos;
        EXPECT_TRUE(!inFolder || rules.isKnownFolder(path.substr(0, path.rfind('/'))))
            << path << " is in no known folder";
        for (const std::string& violation : rules.violations(path, text))
            ADD_FAILURE() << violation;
    }
    EXPECT_GT(files, 20u) << "these are not the sources";
}

TEST(Structure, RoomsMayIncludeWhatTheTableAllows)
{
    const std::pair<const char*, const char*> right[] = {
        {"platform/linux/a.cpp", "platform/socket.h"},
        {"base/a.h", "platform/socket.h"},
        {"base/inner/a.h", "platform/socket.h"},
        {"base/inner/a.h", "base/inner/b.h"},
        {"src/a.cpp", "base/a.h"},
        {"src/a.cpp", "base/inner/a.h"},
        {"src/a.cpp", "platform/socket.h"},
        {"tools/a/a.cpp", "base/a.h"},
        {"tools/b/a.cpp", "platform/socket.h"},
        {"tests/e2e/a.cpp", "src/a.h"},
        {"bench/a.cpp", "neighbour.h"},
    };
    for (const auto& [path, target] : right)
        EXPECT_THAT(violations(path, std::string("#include \"") + target + "\"\n"), IsEmpty()) << path << ' ' << target;
    EXPECT_THAT(violations("src/a.cpp", "#include <vector>\n#include <boost/thread.hpp>\n"), IsEmpty());
    EXPECT_THAT(violations("tests/e2e/a.cpp", "#include <sys/wait.h>\n#ifdef __linux__\n"), IsEmpty());
}

TEST(Structure, EveryOtherIncludeIsFound)
{
    const std::pair<const char*, const char*> wrong[] = {
        {"platform/a.h", "base/a.h"},
        {"base/a.h", "base/inner/a.h"},
        {"base/a.h", "src/a.h"},
        {"base/inner/a.h", "base/a.h"},
        {"src/a.h", "tools/a/a.h"},
        {"src/a.cpp", "tests/support/fake_socket.h"},
        {"src/a.cpp", "late/a.h"},
        {"src/a.cpp", "neighbour.h"},
        {"src/a.cpp", "../platform/socket.h"},
        {"tools/a/a.cpp", "base/inner/a.h"},
        {"tools/a/a.cpp", "tools/b/a.h"},
        {"tools/b/a.cpp", "src/a.h"},
    };
    for (const auto& [path, target] : wrong)
        EXPECT_THAT(violations(path, std::string("#include \"") + target + "\"\n"), SizeIs(1)) << path << ' ' << target;
    EXPECT_THAT(violations("base/a.h", "\n# include <src/a.h> // why\n"), ElementsAre(HasSubstr("base/a.h:2: ")));
}

TEST(Structure, ATableThatCantBeReadIsRefused)
{
    const std::string head = "| folder | what | may include |\n|---|---|---|\n";
    EXPECT_NO_THROW(Rules(head + "| `a/` | it | nothing of ours |\n"));
    for (const std::string& wrong :
         {std::string(), std::string("| folder | what |\n|---|---|\n| `a/` | it |\n"), head,
          head + "| a | it | anything |\n", head + "| `a/` | it | whatever it likes |\n", head + "| `a/` | it |\n",
          std::string("| folder | may include |\n| `a/` | anything |\n")})
        EXPECT_THROW(Rules{wrong}, std::runtime_error) << wrong;
}

TEST(Structure, SystemHeadersOutsidePlatformAreFound)
{
    for (const char* header : {"sys/socket.h", "sys/mman.h", "unistd.h", "netinet/in.h", "arpa/inet.h", "poll.h",
                               "termios.h", "fcntl.h", "pthread.h", "signal.h", "csignal", "net/if.h",
                               "systemd/sd-daemon.h", "windows.h", "winsock2.h", "conio.h"}) {
        const std::string line = std::string("#include <") + header + ">\n";
        for (const char* path : {"src/a.cpp", "base/a.cpp", "tools/a/a.cpp", "platform/a.h"})
            EXPECT_THAT(violations(path, line), SizeIs(1)) << path << ' ' << line;
        EXPECT_THAT(violations("platform/linux/a.cpp", line), IsEmpty()) << line;
    }
}

TEST(Structure, SystemNamesOutsidePlatformAreFound)
{
    for (const char* line : {"#ifdef _WIN32", "#if defined(__linux__)", "# ifndef _WIN32", "#define _GNU_SOURCE"})
        EXPECT_THAT(violations("src/a.cpp", line), SizeIs(1)) << line;
    EXPECT_THAT(violations("src/a.cpp", "// #ifdef _WIN32\n/* \n#ifdef __linux__\n*/ const char* a = \"//\";\n"),
                IsEmpty());
    EXPECT_THAT(violations("src/a.cpp", "const char* a = \"/*\";\n#ifdef _WIN32\n"), SizeIs(1));
    EXPECT_THAT(violations("src/a.cpp", "int a = 1'000;\n// it's\n#ifdef _WIN32\n"), SizeIs(1));
}

TEST(Structure, UnknownFoldersAreFound)
{
    const Rules rules(page);
    EXPECT_TRUE(rules.isKnownFolder("tools/a/data"));
    EXPECT_TRUE(rules.isKnownFolder("base"));
    EXPECT_TRUE(rules.isKnownFolder("tools"));
    EXPECT_TRUE(rules.isKnownFolder("tests/unit/src"));
    EXPECT_FALSE(rules.isKnownFolder("library"));
    EXPECT_FALSE(rules.isKnownFolder("late"));
    EXPECT_FALSE(rules.isKnownFolder("tools/other"));
}
