// Options, the choice of a mode, banner and usage.
#include "src/Modes.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <vector>

#include <boost/program_options/parsers.hpp>

namespace options = boost::program_options;
using namespace zuGevDaemon;

namespace {

RunMode modeOf(std::initializer_list<const char*> arguments)
{
    std::vector<const char*> argv{"zuGevSvc"};
    argv.insert(argv.end(), arguments);
    options::variables_map chosen;
    const auto description = MakeOptions();
    options::store(options::parse_command_line(static_cast<int>(argv.size()), argv.data(), description), chosen);
    options::notify(chosen);
    return ComputeMode(chosen);
}

} // namespace

TEST(Modes, Numbers)
{
    EXPECT_EQ(static_cast<int>(RunMode::Install), 0);
    EXPECT_EQ(static_cast<int>(RunMode::Delete), 1);
    EXPECT_EQ(static_cast<int>(RunMode::Start), 2);
    EXPECT_EQ(static_cast<int>(RunMode::Stop), 3);
    EXPECT_EQ(static_cast<int>(RunMode::Help), 4);
    EXPECT_EQ(static_cast<int>(RunMode::Execute), 5);
    EXPECT_EQ(static_cast<int>(RunMode::Service), 6);
}

TEST(Modes, EachOptionAlone)
{
    EXPECT_EQ(modeOf({}), RunMode::Help);
    EXPECT_EQ(modeOf({"--svc"}), RunMode::Service);
    EXPECT_EQ(modeOf({"-s"}), RunMode::Service);
    EXPECT_EQ(modeOf({"--help"}), RunMode::Help);
    EXPECT_EQ(modeOf({"-h"}), RunMode::Help);
    EXPECT_EQ(modeOf({"--install"}), RunMode::Install);
    EXPECT_EQ(modeOf({"-i"}), RunMode::Install);
    EXPECT_EQ(modeOf({"--delete"}), RunMode::Delete);
    EXPECT_EQ(modeOf({"-d"}), RunMode::Delete);
    EXPECT_EQ(modeOf({"--start"}), RunMode::Start);
    EXPECT_EQ(modeOf({"-t"}), RunMode::Start);
    EXPECT_EQ(modeOf({"--stop"}), RunMode::Stop);
    EXPECT_EQ(modeOf({"-o"}), RunMode::Stop);
    EXPECT_EQ(modeOf({"--execute"}), RunMode::Execute);
    EXPECT_EQ(modeOf({"-x"}), RunMode::Execute);
}

TEST(Modes, LaterTestsOverrideEarlierOnes)
{
    EXPECT_EQ(modeOf({"--execute", "--stop", "--start", "--delete", "--install", "--svc"}), RunMode::Execute);
    EXPECT_EQ(modeOf({"--stop", "--start", "--delete", "--install", "--svc"}), RunMode::Stop);
    EXPECT_EQ(modeOf({"--start", "--delete", "--install", "--svc"}), RunMode::Start);
    EXPECT_EQ(modeOf({"--delete", "--install", "--svc"}), RunMode::Delete);
    EXPECT_EQ(modeOf({"--install", "--svc"}), RunMode::Install);
    EXPECT_EQ(modeOf({"--svc", "--execute"}), RunMode::Execute);
    EXPECT_EQ(modeOf({"--install", "--stop"}), RunMode::Stop);
    EXPECT_EQ(modeOf({"--help", "--install"}), RunMode::Install) << "help is never tested";
}

TEST(Modes, LogTakesAValueAndChangesNothing)
{
    EXPECT_EQ(modeOf({"--log", "somevalue", "--execute"}), RunMode::Execute);
    EXPECT_EQ(modeOf({"--log", "somevalue"}), RunMode::Help);
    EXPECT_THROW(modeOf({"--execute", "--log"}), options::error);
    EXPECT_THROW(modeOf({"--no-such-option"}), options::error);
}

TEST(Modes, UsageText)
{
    std::ostringstream out;
    out << MakeOptions();
    EXPECT_EQ(out.str(), "Generic options:\n"
                         "  -s [ --svc ]          Run as service\n"
                         "  -h [ --help ]         Print usage\n"
                         "  -i [ --install ]      Install service\n"
                         "  -d [ --delete ]       Delete service\n"
                         "  -t [ --start ]        Start service\n"
                         "  -o [ --stop ]         Stop service\n"
                         "  --log arg             Log activity ( only in combination with --execute)\n"
                         "  -x [ --execute ]      Execute as application\n");
}

TEST(Modes, Banner)
{
    VersionQuad = (std::uint64_t{1} << 48) | (std::uint64_t{22} << 32) | (std::uint64_t{333} << 16) | 65535;
    std::ostringstream out;
    PrintBanner(out);
    VersionQuad = 0;
    std::istringstream lines(out.str());
    const std::string stars(65, '*');
    std::string line;
    const auto next = [&] {
        std::getline(lines, line);
        return line;
    };
    EXPECT_EQ(next(), "");
    EXPECT_EQ(next(), stars);
    EXPECT_EQ(next().substr(0, 18), std::string(18, ' '));
    EXPECT_NE(line[18], ' ');
    EXPECT_EQ(next(), stars);
    EXPECT_EQ(next(), "");
    EXPECT_EQ(next(), "ORTOLAN GigE Vision Service");
    EXPECT_EQ(next(), "Version   : \t1.22.333.65535");
    next();
    EXPECT_EQ(line.substr(0, 13), "BuildDate : \t");
    EXPECT_EQ(line.size(), 13u + 11u) << "a date such as Jun 23 2024";
    EXPECT_EQ(next(), "");
    EXPECT_FALSE(std::getline(lines, line));
}
