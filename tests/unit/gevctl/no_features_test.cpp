// Without the features library.
#include "tools/gevctl/commands.h"

#include <gmock/gmock.h>

#include <sstream>

namespace {

using namespace gevctl;
using testing::HasSubstr;

TEST(GevctlWithoutFeaturesTest, saysWhichPackageToInstall)
{
    for (const char* const words : {"list", "get Width", "set Width=1", "run Start", "describe Width", "save"}) {
        std::vector<std::string> arguments{"feature"};
        std::istringstream rest(words);
        for (std::string word; rest >> word;)
            arguments.push_back(word);
        arguments.insert(arguments.end(), {"-c", "127.0.0.1"});
        const Parsed parsed = parseCommandLine(arguments);
        ASSERT_TRUE(parsed.options) << parsed.err;
        std::istringstream in;
        std::ostringstream out, err;
        std::atomic<bool> stop{false};
        EXPECT_EQ(run(*parsed.options, {in, out, err, false, false, stop}), exitFailure);
        EXPECT_THAT(err.str(), HasSubstr("apt-get install libzugevfeatures1"));
        EXPECT_THAT(err.str(), HasSubstr("no such file"));
    }
}

} // namespace
