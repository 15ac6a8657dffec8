// agent::RateLimit: a sliding minute per user, one bucket for unknown
// owners, no limit at 0.
#include <gtest/gtest.h>

#include "rateLimit.h"

namespace {

using agent::RateLimit;
using std::chrono::seconds;

TEST(RateLimit, AtMostNInAnySixtySeconds)
{
    RateLimit limit(2);
    const RateLimit::clock::time_point start{};
    EXPECT_TRUE(limit.Take(1000, start));
    EXPECT_TRUE(limit.Take(1000, start + seconds(10)));
    EXPECT_FALSE(limit.Take(1000, start + seconds(59)));
    // The first falls out of the window after a minute; the refused one
    // took nothing.
    EXPECT_TRUE(limit.Take(1000, start + seconds(60)));
    EXPECT_FALSE(limit.Take(1000, start + seconds(69)));
    EXPECT_TRUE(limit.Take(1000, start + seconds(70)));
}

TEST(RateLimit, UsersAreCountedApartAndUnknownOwnersShareOne)
{
    RateLimit limit(1);
    const RateLimit::clock::time_point now{};
    EXPECT_TRUE(limit.Take(1000, now));
    EXPECT_TRUE(limit.Take(1001, now));
    EXPECT_TRUE(limit.Take(-1, now));
    EXPECT_FALSE(limit.Take(-1, now));
    EXPECT_FALSE(limit.Take(1000, now));
}

TEST(RateLimit, ZeroIsNoLimit)
{
    RateLimit limit(0);
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(limit.Take(0));
}

}  // namespace
