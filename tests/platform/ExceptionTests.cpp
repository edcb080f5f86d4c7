#include "platform/Exception.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

// The reason of the range exception raised for index in a list of count.
std::string reasonFor(std::size_t index, std::size_t count)
{
    try {
        platform::raiseIndexBeyondBounds(index, count);
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
        EXPECT_TRUE(exception.userInfo().empty());
        return exception.reason();
    }
    return "nothing raised";
}

TEST(RaiseIndexBeyondBounds, NamesTheIndexAndTheLastValidOne)
{
    EXPECT_EQ(reasonFor(1, 1), "index 1 beyond bounds [0 .. 0]");
    EXPECT_EQ(reasonFor(7, 3), "index 7 beyond bounds [0 .. 2]");
}

TEST(RaiseIndexBeyondBounds, AnEmptyListHasNoBoundsToName)
{
    EXPECT_EQ(reasonFor(0, 0), "index 0 beyond bounds for empty array");
    EXPECT_EQ(reasonFor(2, 0), "index 2 beyond bounds for empty array");
}

TEST(ObjectAtIndex, GivesTheElementItself)
{
    const std::vector<std::string> pieces{"", "Volumes", "Disk"};
    EXPECT_EQ(platform::objectAtIndex(pieces, 1), "Volumes");
    EXPECT_EQ(&platform::objectAtIndex(pieces, 2), &pieces[2]);
}

TEST(ObjectAtIndex, PastTheEndRaisesTheRangeException)
{
    const std::vector<int> one{5};
    try {
        platform::objectAtIndex(one, 1);
        FAIL() << "nothing raised";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
        EXPECT_EQ(exception.reason(), "index 1 beyond bounds [0 .. 0]");
    }
}

TEST(ObjectAtIndex, AnyIndexOfAnEmptyListRaises)
{
    const std::vector<std::string> none;
    EXPECT_THROW(platform::objectAtIndex(none, 0), platform::Exception);
}

}  // namespace
