// Walks the sources for includes that go against the plan of the rooms, and for what belongs into platform/ alone.
#include "tests/support/files.h"
#include "tests/unit/structure/structure_rules.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <set>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zuTest::structure::isKnownFolder;
using zuTest::structure::violations;

namespace {

const std::set<std::string> sourceEndings = {".h", ".hpp", ".ipp", ".c", ".cc", ".cpp", ".cxx", ".in"};

bool isForeignFolder(const fs::directory_entry& entry)
{
    const std::string name = entry.path().filename().string();
    return name.front() == '.' || fs::exists(entry.path() / "CMakeCache.txt") || name.rfind("build", 0) == 0;
}

} // namespace

TEST(Structure, SourcesKeepToTheRooms)
{
    const fs::path root = ZU_SOURCE_DIR;
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
        EXPECT_TRUE(!inFolder || isKnownFolder(path.substr(0, path.rfind('/')))) << path << " is in no known folder";
        for (const std::string& violation : violations(path, text))
            ADD_FAILURE() << violation;
    }
    EXPECT_GT(files, 20u) << "these are not the sources";
}

TEST(Structure, RoomsMayIncludeWhatTheTableAllows)
{
    EXPECT_THAT(violations("platform/linux/a.cpp", "#include \"platform/socket.h\"\n#include <sys/socket.h>\n"),
                IsEmpty());
    EXPECT_THAT(violations("logging/a.cpp", "#include \"platform/socket.h\"\n#include \"logging/b.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("stream/a.cpp", "#include \"platform/socket.h\"\n#include \"stream/b.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("GevTLBase/IPCPipe/a.h", "#include \"logging/log.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("src/a.cpp", "#include \"GevTLBase/GVCP.h\"\n#include \"GevTLBase/IPCPipe/a.h\"\n"),
                IsEmpty());
    EXPECT_THAT(violations("client/a.cpp", "#include \"GevTLBase/IPCPipe/a.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("tools/gevctl/a.cpp", "#include \"client/a.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("tools/gevsim/a.cpp", "#include \"platform/socket.h\"\n"), IsEmpty());
    EXPECT_THAT(violations("tests/e2e/a.cpp", "#include <sys/wait.h>\n#include \"src/a.h\"\n#ifdef __linux__\n"),
                IsEmpty());
    EXPECT_THAT(violations("src/a.cpp", "#include <vector>\n#include <boost/thread.hpp>\n"), IsEmpty());
}

TEST(Structure, EveryOtherIncludeIsFound)
{
    const std::pair<const char*, const char*> wrong[] = {
        {"platform/a.h", "logging/log.h"},
        {"logging/a.h", "GevTLBase/GVCP.h"},
        {"logging/a.h", "GevTLBase/IPCPipe/a.h"},
        {"GevTLBase/IPCPipe/a.h", "GevTLBase/GVCP.h"},
        {"GevTLBase/IPCPipe/a.h", "src/a.h"},
        {"GevTLBase/a.h", "GevTLBase/IPCPipe/a.h"},
        {"GevTLBase/a.h", "src/a.h"},
        {"stream/a.h", "logging/log.h"},
        {"stream/a.h", "GevTLBase/GVCP.h"},
        {"stream/a.h", "client/a.h"},
        {"src/a.h", "client/a.h"},
        {"src/a.h", "stream/a.h"},
        {"src/a.h", "tools/gevsim/a.h"},
        {"client/a.h", "GevTLBase/GVCP.h"},
        {"client/a.h", "src/a.h"},
        {"tools/gevctl/a.cpp", "GevTLBase/IPCPipe/a.h"},
        {"tools/gevctl/a.cpp", "logging/log.h"},
        {"tools/gevctl/a.cpp", "tools/gevsim/a.h"},
        {"tools/gevsim/a.cpp", "GevTLBase/GVCP.h"},
        {"tools/gevsim/a.cpp", "logging/log.h"},
        {"tools/zuLogSvc/a.cpp", "logging/log.h"},
        {"src/a.cpp", "tests/support/fake_socket.h"},
        {"src/a.cpp", "neighbour.h"},
        {"src/a.cpp", "../platform/socket.h"},
    };
    for (const auto& [path, target] : wrong)
        EXPECT_THAT(violations(path, std::string("#include \"") + target + "\"\n"), SizeIs(1)) << path << ' ' << target;
    EXPECT_THAT(violations("logging/a.h", "\n# include <src/a.h> // why\n"), ElementsAre(HasSubstr("logging/a.h:2: ")));
}

TEST(Structure, SystemHeadersOutsidePlatformAreFound)
{
    for (const char* header : {"sys/socket.h", "sys/mman.h", "unistd.h", "netinet/in.h", "arpa/inet.h", "poll.h",
                               "termios.h", "fcntl.h", "pthread.h", "signal.h", "csignal", "net/if.h",
                               "systemd/sd-daemon.h", "windows.h", "winsock2.h", "conio.h"}) {
        const std::string line = std::string("#include <") + header + ">\n";
        for (const char* path :
             {"src/a.cpp", "logging/a.cpp", "GevTLBase/a.cpp", "tools/zuLogSvc/a.cpp", "platform/a.h"})
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
    EXPECT_TRUE(isKnownFolder("tools/gevsim/data"));
    EXPECT_TRUE(isKnownFolder("GevTLBase"));
    EXPECT_TRUE(isKnownFolder("tests/unit/src"));
    EXPECT_FALSE(isKnownFolder("library"));
    EXPECT_FALSE(isKnownFolder("tools/other"));
}
