// markforge::SplitCommandWords: a signing helper's command split as a POSIX
// shell splits a simple command, with nothing expanded.
#include <gtest/gtest.h>

#include "commandWords.h"

namespace {

using markforge::SplitCommandWords;
using words = std::vector<std::string>;

words Split(const std::string& text)
{
    words result;
    std::string reason;
    EXPECT_TRUE(SplitCommandWords(text, result, reason)) << text << ": " << reason;
    return result;
}

std::string Refusal(const std::string& text)
{
    words result{"left over"};
    std::string reason;
    EXPECT_FALSE(SplitCommandWords(text, result, reason)) << text;
    EXPECT_TRUE(result.empty());
    return reason;
}

TEST(CommandWords, BlanksSeparateWords)
{
    EXPECT_EQ(Split("openssl pkeyutl -sign"), (words{"openssl", "pkeyutl", "-sign"}));
    EXPECT_EQ(Split("  a\t\tb \n c  "), (words{"a", "b", "c"}));
}

TEST(CommandWords, SingleQuotesKeepEverything)
{
    EXPECT_EQ(Split("sh -c 'echo \"$X\" \\ done'"), (words{"sh", "-c", "echo \"$X\" \\ done"}));
    EXPECT_EQ(Split("''"), (words{""}));
    EXPECT_EQ(Split("a'b c'd"), (words{"ab cd"}));
}

TEST(CommandWords, DoubleQuotesEscapeOnlyFourCharacters)
{
    EXPECT_EQ(Split("\"a \\\"b\\\" \\$c \\\\ \\n\""), (words{"a \"b\" $c \\ \\n"}));
    EXPECT_EQ(Split("\"\""), (words{""}));
    EXPECT_EQ(Split("\"$HOME\" `id`"), (words{"$HOME", "`id`"}));
}

TEST(CommandWords, ABackslashKeepsTheNextCharacter)
{
    EXPECT_EQ(Split("a\\ b c\\'d"), (words{"a b", "c'd"}));
}

TEST(CommandWords, NothingIsExpanded)
{
    EXPECT_EQ(Split("echo * ~ $PATH ; rm -rf / | cat > x"),
              (words{"echo", "*", "~", "$PATH", ";", "rm", "-rf", "/", "|", "cat", ">", "x"}));
}

TEST(CommandWords, BadTextsAreRefused)
{
    EXPECT_EQ(Refusal("sign 'open"), "the command has a ' without its closing '");
    EXPECT_EQ(Refusal("sign \"open"), "the command has a \" without its closing \"");
    EXPECT_EQ(Refusal("sign \\"), "the command ends in a backslash");
    EXPECT_EQ(Refusal(""), "the command is empty");
    EXPECT_EQ(Refusal(" \t\n"), "the command is empty");
}

TEST(CommandWords, AnEmbeddedNulIsAnOrdinaryCharacter)
{
    const std::string text("a\\\0b \"c\\\0\"", 10);
    EXPECT_EQ(Split(text), (words{std::string("a\0b", 3), std::string("c\\\0", 3)}));
}

}  // namespace
