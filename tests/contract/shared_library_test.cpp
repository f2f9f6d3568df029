// Libraries that are loaded by name while the program runs.
#include "platform/shared_library.h"

#include <gmock/gmock.h>

using zuPlatform::SharedLibrary;

TEST(SharedLibrary, oneThatIsThereGivesItsSymbols)
{
    // The library of mathematics is on every system that this runs on.
    const SharedLibrary library("m", 6);
    ASSERT_TRUE(library.isLoaded()) << library.problem();
    EXPECT_EQ(library.problem(), "");
    const auto cosine = reinterpret_cast<double (*)(double)>(library.symbol("cos"));
    ASSERT_NE(cosine, nullptr);
    EXPECT_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(library.symbol("no_such_function"), nullptr);
}

TEST(SharedLibrary, oneThatIsNotThereSaysSo)
{
    const SharedLibrary library("zu-no-such-library", 1);
    EXPECT_FALSE(library.isLoaded());
    EXPECT_THAT(library.problem(), testing::HasSubstr("zu-no-such-library"));
    EXPECT_EQ(library.symbol("cos"), nullptr);
    EXPECT_FALSE(SharedLibrary("m", 99999).isLoaded()); // another version is another library
}
