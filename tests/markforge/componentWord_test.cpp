// markforge::componentWord: NAME=FILE words.
#include <gtest/gtest.h>

#include <string>

#include "componentWord.h"

namespace {

using markforge::componentWord;

TEST(ComponentWordTest, SplitsAtTheFirstEquals)
{
    componentWord word;
    std::string reason;
    ASSERT_TRUE(word.Parse("kernel=/images/a=b.bin", reason)) << reason;
    EXPECT_EQ(word.name, "kernel");
    EXPECT_EQ(word.path, "/images/a=b.bin");
    ASSERT_TRUE(word.Parse("abcdefghijklmn=x", reason)) << reason;
    EXPECT_EQ(word.name.size(), 14u);
    ASSERT_TRUE(word.Parse("u-boot.bin_2+~=x", reason)) << reason;
}

TEST(ComponentWordTest, RefusesWhatTheRecordCannotCarry)
{
    const std::pair<std::string, std::string> rows[] = {
        {"kernel.bin", "'kernel.bin' is not NAME=FILE"},
        {"", "'' is not NAME=FILE"},
        {"=x", "'=x' has no component name before '='"},
        {"a=", "'a=' has no file after '='"},
        {"abcdefghijklmno=x", "component name 'abcdefghijklmno' has 15 characters; at most 14 fit"},
        {"a b=x", "component name 'a b' may hold only printable ASCII characters without blanks"},
        {"a\tb=x", "component name 'a\tb' may hold only printable ASCII characters without blanks"},
        {"\xc3\xa9=x", "component name '\xc3\xa9' may hold only printable ASCII characters without blanks"},
        {std::string("a\0b=x", 5), std::string("component name 'a\0b' may hold", 29)},
    };
    for (const auto& [text, why] : rows) {
        SCOPED_TRACE(text);
        componentWord word;
        std::string reason;
        EXPECT_FALSE(word.Parse(text, reason));
        EXPECT_EQ(reason.substr(0, why.size()), why);
    }
}

}  // namespace
