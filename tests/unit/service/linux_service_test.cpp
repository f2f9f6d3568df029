// What a service is under systemd: states, unit files, volumes, command lines.
#include "platform/linux/service_state.h"
#include "platform/linux/service_unit.h"
#include "platform/service_manager.h"
#include "tests/support/files.h"

#include <unistd.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace zuPlatform {
namespace {

using testing::HasSubstr;
using testing::Not;

std::uint32_t stateOf(const std::string& active, const std::string& sub, const std::string& job = "")
{
    return serviceStatusOfUnit(active, sub, job).state;
}

TEST(ServiceState, FollowsTheUnit)
{
    EXPECT_EQ(stateOf("inactive", "dead"), 1u);
    EXPECT_EQ(stateOf("failed", "failed"), 1u);
    EXPECT_EQ(stateOf("activating", "start-pre"), 2u);
    EXPECT_EQ(stateOf("activating", "start"), 2u);
    EXPECT_EQ(stateOf("activating", "auto-restart"), 2u);
    EXPECT_EQ(stateOf("deactivating", "stop-sigterm"), 3u);
    EXPECT_EQ(stateOf("deactivating", "final-sigkill"), 3u);
    EXPECT_EQ(stateOf("active", "running"), 4u);
    EXPECT_EQ(stateOf("reloading", "reload"), 4u);
    EXPECT_EQ(stateOf("maintenance", ""), 1u);
}

TEST(ServiceState, QueuedJobCountsAsItsResultPending)
{
    EXPECT_EQ(stateOf("inactive", "dead", "start"), 2u);
    EXPECT_EQ(stateOf("failed", "failed", "start"), 2u);
    EXPECT_EQ(stateOf("inactive", "dead", "restart"), 2u);
    EXPECT_EQ(stateOf("inactive", "dead", "stop"), 1u);
    EXPECT_EQ(stateOf("active", "running", "stop"), 3u);
    EXPECT_EQ(stateOf("activating", "start", "stop"), 3u);
    EXPECT_EQ(stateOf("activating", "start", "start"), 2u);
    EXPECT_EQ(stateOf("deactivating", "stop-sigterm", "start"), 3u);
}

TEST(ServiceState, PendingStatesCarryHintsThatMakePollingSensible)
{
    const ServiceStatus start = serviceStatusOfUnit("activating", "start", "start");
    EXPECT_EQ(start.waitHint / 10, 1000u) << "a start is polled at a tenth of it";
    const ServiceStatus stop = serviceStatusOfUnit("deactivating", "stop-sigterm", "stop");
    EXPECT_GE(stop.waitHint, 20u) << "a stop is polled at the hint itself";
    EXPECT_LE(stop.waitHint, 500u);
    EXPECT_GE(serviceStatusOfUnit("active", "running", "").waitHint, 20u) << "nor does anyone spin on a running one";
    EXPECT_EQ(serviceStatusOfUnit("inactive", "dead", "").waitHint, 0u);
}

TEST(ServiceState, CheckpointGrowsWithThePhasesOfAStartAndIsBounded)
{
    const auto checkpoint = [](const char* sub) { return serviceStatusOfUnit("activating", sub, "").checkpoint; };
    EXPECT_LT(serviceStatusOfUnit("inactive", "dead", "start").checkpoint, checkpoint("start-pre"));
    EXPECT_LT(checkpoint("start-pre"), checkpoint("start"));
    EXPECT_LT(checkpoint("start"), checkpoint("start-post"));
    EXPECT_LT(checkpoint("auto-restart"), checkpoint("start")) << "starting over is no progress";
}

class ServiceFiles : public testing::Test {
protected:
    std::string program(const std::string& name, fs::perms perms = fs::perms(0755))
    {
        const fs::path path = folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "program";
        fs::permissions(path, perms);
        return path.string();
    }

    const zuTest::TemporaryFolder temporary;
    const fs::path folder = temporary.path();
};

TEST_F(ServiceFiles, CommandIsSplitBehindTheProgram)
{
    const std::string path = program("zuGevSvc");
    const ServiceCommand command = splitServiceCommand(path + " -s ");
    EXPECT_EQ(command.program, path);
    EXPECT_EQ(command.arguments, " -s ");
    EXPECT_EQ(volumeOfPath(path + " -s "), path);
}

TEST_F(ServiceFiles, PathWithBlanks)
{
    const std::string path = program("a b /zu Gev  Svc");
    for (const char* tail : {" -s ", "", " ", " x y"}) {
        const ServiceCommand command = splitServiceCommand(path + tail);
        EXPECT_EQ(command.program, path);
        EXPECT_EQ(command.arguments, tail);
    }
}

TEST_F(ServiceFiles, LongestNameOfAFileIsTheProgram)
{
    program("zu");
    const std::string path = program("zu -s");
    EXPECT_EQ(splitServiceCommand(path + " -s ").program, path);
}

TEST_F(ServiceFiles, MissingProgramEndsAtTheFirstBlank)
{
    const std::string path = (folder / "none").string();
    EXPECT_EQ(splitServiceCommand(path + " -s ").program, path);
    EXPECT_EQ(splitServiceCommand(path).program, path);
    EXPECT_EQ(splitServiceCommand("/ x").program, "/");
    EXPECT_EQ(splitServiceCommand("/").program, "/");
}

TEST_F(ServiceFiles, OnlyAnAbsolutePathHasAVolume)
{
    for (const char* text : {"", " ", "zuGevSvc -s ", "./zuGevSvc", "C:\\zuGevSvc.exe -s ", "\\\\server\\share\\x"})
        EXPECT_EQ(volumeOfPath(text), "") << text;
}

TEST_F(ServiceFiles, LocalFileSystemsAreFixed)
{
    EXPECT_EQ(volumeType(program("zuGevSvc")), volumeFixed);
    EXPECT_EQ(volumeType("/dev/shm"), volumeFixed) << "in memory, but of this machine";
    EXPECT_EQ(volumeType((folder / "none").string()), volumeMissing);
    EXPECT_EQ(volumeType(""), volumeMissing);
}

TEST_F(ServiceFiles, NoVolumeStandsForAnother)
{
    char buffer[4] = "abc";
    EXPECT_FALSE(queryVolumeDevice("/", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "");
    EXPECT_FALSE(queryVolumeDevice("/", nullptr, 0));
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

ServiceUnit unitOf(const std::string& program, const std::string& user = "zugevsvc")
{
    return {"ORTOLAN GigE Vision Service", {program, " -s "}, user};
}

TEST(ServiceUnitText, RunsTheProgramWithItsTail)
{
    const auto lines = linesOf(serviceUnitText(unitOf("/opt/zu gev/zuGevSvc")));
    EXPECT_THAT(lines, testing::Contains("ExecStart=:\"/opt/zu gev/zuGevSvc\" -s "));
    EXPECT_THAT(lines, testing::Contains("Description=ORTOLAN GigE Vision Service"));
    EXPECT_THAT(lines, testing::Contains("User=zugevsvc"));
    EXPECT_THAT(lines, testing::Contains("Type=notify"));
    EXPECT_THAT(lines, testing::Contains("ProtectHome=yes"));
    EXPECT_THAT(lines, testing::Contains("PrivateTmp=yes"));
    EXPECT_THAT(lines, testing::Contains("WantedBy=multi-user.target")) << "it starts with the machine";
    EXPECT_THAT(lines, Not(testing::Contains(HasSubstr("@ZU"))));
}

TEST(ServiceUnitText, ProgramIsNotHiddenFromItself)
{
    for (const char* path : {"/home/someone/bin/zuGevSvc", "/root/zuGevSvc"})
        EXPECT_THAT(linesOf(serviceUnitText(unitOf(path))), testing::Contains("ProtectHome=read-only")) << path;
    for (const char* path : {"/tmp/build/zuGevSvc", "/var/tmp/zuGevSvc"})
        EXPECT_THAT(linesOf(serviceUnitText(unitOf(path))), testing::Contains("PrivateTmp=no")) << path;
}

TEST(ServiceUnitText, WithoutAnAccountItNamesNone)
{
    const std::string text = serviceUnitText(unitOf("/opt/zuGevSvc", ""));
    EXPECT_THAT(text, Not(HasSubstr("\nUser=")));
    EXPECT_THAT(text, Not(HasSubstr("\nGroup=")));
    EXPECT_THAT(linesOf(text), testing::Contains("CapabilityBoundingSet=CAP_SYS_NICE"));
}

TEST(ServiceUnitText, NothingInAPathIsTakenForSyntax)
{
    EXPECT_EQ(quotedForUnit("/a\"b\\c"), ":\"/a\\\"b\\\\c\"");
    EXPECT_EQ(quotedForUnit("/100%/x"), ":\"/100%%/x\"");
    EXPECT_EQ(quotedForUnit("/a\nUser=root\n"), ":\"/a\\x0aUser=root\\x0a\"");
    EXPECT_EQ(quotedForUnit("/$HOME/x"), ":\"/$HOME/x\"") << "the colon keeps variables from being looked for";
    EXPECT_EQ(quotedForUnit("/gr\xc3\xbc\xc3\x9f"), ":\"/gr\xc3\xbc\xc3\x9f\"");
    const auto lines = linesOf(serviceUnitText({"a\nUser=root", {"/x", " -s\nUser=root"}, ""}));
    EXPECT_THAT(lines, Not(testing::Contains("User=root")));
}

TEST(ServiceUnitText, ProgramsThatSystemdRunsUnderNoQuoting)
{
    EXPECT_TRUE(usableInUnit("/opt/zu gev  100%/zuGev$vc"));
    EXPECT_TRUE(usableInUnit("/gr\xc3\xbc\xc3\x9f/zuGevSvc"));
    EXPECT_FALSE(usableInUnit(""));
    for (const char* path : {"/o'pt/x", "/opt\"/x", "/o\\pt/x", "/opt\n/x", "/opt\x01/x", "/opt/x\x1f", "/opt/x\x7f"})
        EXPECT_FALSE(usableInUnit(path)) << path;
}

TEST(ServiceUnitText, KnowsItsOwnTextAgainUntilItIsChanged)
{
    const std::string text = serviceUnitText(unitOf("/opt/zuGevSvc"));
    EXPECT_TRUE(isServiceUnitAsWritten(text));
    EXPECT_FALSE(isServiceUnitAsWritten(text + "Nice=5\n"));
    EXPECT_FALSE(isServiceUnitAsWritten(text.substr(text.find('\n') + 1))) << "without the mark";
    std::string other = text;
    other.replace(other.find("Restart=on-failure"), 18, "Restart=on-success");
    EXPECT_FALSE(isServiceUnitAsWritten(other));
    EXPECT_FALSE(isServiceUnitAsWritten(""));
    EXPECT_FALSE(isServiceUnitAsWritten("\n"));
}

TEST(ServiceUnitText, HasRoomForAThousandClientsAndTimeForSilentCameras)
{
    const auto lines = linesOf(serviceUnitText(unitOf("/opt/zuGevSvc")));
    EXPECT_THAT(lines, testing::Contains("LimitNOFILE=16384"));
    EXPECT_THAT(lines, testing::Contains("TasksMax=16384"));
    EXPECT_THAT(lines, testing::Contains("TimeoutStopSec=30min"));
    EXPECT_THAT(lines, testing::Contains("After=network.target network-online.target zuLogSvc.service"));
    EXPECT_THAT(lines, testing::Contains("Wants=zuLogSvc.service"));
    EXPECT_THAT(lines, testing::Contains("Restart=on-failure"));
    EXPECT_THAT(lines, testing::Contains("RestrictAddressFamilies=AF_INET AF_UNIX"));
}

TEST_F(ServiceFiles, RootRunsOnlyWhatNobodyElseCanReplace)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can make such files";
    const std::string path = program("a/b/zuGevSvc");
    const fs::path directory = fs::path(path).parent_path();
    EXPECT_TRUE(changeableByRootOnly(path)) << "below a directory that anyone may add to, but not replace in";
    EXPECT_FALSE(changeableByRootOnly((folder / "none").string()));

    const std::string link = (folder / "link").string();
    fs::create_symlink(path, link);
    EXPECT_TRUE(changeableByRootOnly(link));

    for (const fs::path& changed : {fs::path(path), directory, directory.parent_path()}) {
        const fs::perms before = fs::status(changed).permissions();
        fs::permissions(changed, fs::perms(0757));
        EXPECT_FALSE(changeableByRootOnly(path)) << changed << " is open to all";
        EXPECT_FALSE(changeableByRootOnly(link)) << changed << " is open to all";
        fs::permissions(changed, fs::perms(0775));
        EXPECT_TRUE(changeableByRootOnly(path)) << "root's group is root";
        ASSERT_EQ(::chown(changed.c_str(), 0, 12345), 0);
        fs::permissions(changed, fs::perms(0775));
        EXPECT_FALSE(changeableByRootOnly(path)) << changed << " is open to a group";
        fs::permissions(changed, before);
        EXPECT_TRUE(changeableByRootOnly(path));
        ASSERT_EQ(::chown(changed.c_str(), 12345, 0), 0);
        EXPECT_FALSE(changeableByRootOnly(path)) << changed << " belongs to somebody";
        ASSERT_EQ(::chown(changed.c_str(), 0, 0), 0);
    }
}

TEST_F(ServiceFiles, ExecutableByAllLooksAtTheWholeWay)
{
    fs::permissions(folder, fs::perms(0755));
    EXPECT_TRUE(executableByAll(program("open/zuGevSvc")));
    EXPECT_FALSE(executableByAll(program("open/private", fs::perms(0750))));
    const std::string hidden = program("closed/zuGevSvc");
    EXPECT_TRUE(executableByAll(hidden));
    fs::permissions(folder / "closed", fs::perms(0700));
    EXPECT_FALSE(executableByAll(hidden));
    EXPECT_FALSE(executableByAll((folder / "none").string()));
}

} // namespace
} // namespace zuPlatform
