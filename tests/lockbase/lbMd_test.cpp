// lbMd and lbHashId: the three digests by number, text and byte forms,
// lengths, copies of running and finished digests, and refused numbers.
#include <gtest/gtest.h>

#include "lbBytes.h"
#include "lbHashId.h"
#include "lbMd.h"
#include "testSupport.h"

namespace {

// FIPS 180 test vectors for the message "abc".
const std::string ABC_SHA256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string ABC_SHA384 =
    "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7";
const std::string ABC_SHA512 =
    "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd"
    "454d4423643ce80e2a9ac94fa54ca49f";

class LbMdTest : public testsupport::FrameworkTest {
protected:
    // A digest opened on hash id `id`; the hash id is closed again, as the
    // program does.
    bool OpenDigest(lbMd& md, unsigned id)
    {
        lbHashId hashId;
        if (!hashId.Open(id)) return false;
        return md.Open(hashId) && hashId.Close();
    }

    // Starts `md` afresh, feeds it `text` and finishes it.
    static bool Finish(lbMd& md, const std::string& text)
    {
        return md.Init() && md.Update(text.data(), static_cast<unsigned>(text.size())) && md.Final();
    }

    // The same, giving the finished digest text.
    static std::string Digest(lbMd& md, const std::string& text)
    {
        EXPECT_TRUE(Finish(md, text));
        std::string out;
        EXPECT_TRUE(md.GetString(out));
        return out;
    }

    std::string DigestOf(unsigned id, const std::string& text)
    {
        lbMd md;
        EXPECT_TRUE(OpenDigest(md, id));
        const std::string out = Digest(md, text);
        md.Close();
        return out;
    }

    static std::string Hex(const std::vector<uint8_t>& bytes)
    {
        static const char digits[] = "0123456789abcdef";
        std::string text;
        for (uint8_t b : bytes) {
            text.push_back(digits[b >> 4]);
            text.push_back(digits[b & 15]);
        }
        return text;
    }
};

}  // namespace

TEST_F(LbMdTest, NumberThreeIsSha256)
{
    EXPECT_EQ(DigestOf(3, "abc"), ABC_SHA256);
}

TEST_F(LbMdTest, NumberFourIsSha512)
{
    EXPECT_EQ(DigestOf(4, "abc"), ABC_SHA512);
}

TEST_F(LbMdTest, NumberFiveIsSha384)
{
    EXPECT_EQ(DigestOf(5, "abc"), ABC_SHA384);
}

TEST_F(LbMdTest, HashIdKeepsItsNumber)
{
    lbHashId id;
    EXPECT_EQ(id.Id(), 0u);
    ASSERT_TRUE(id.Open(lbHashId::SHA384));
    EXPECT_EQ(id.Id(), 5u);
    EXPECT_EQ(lbHashId::SHA256, 3u);
    EXPECT_EQ(lbHashId::SHA512, 4u);
    EXPECT_EQ(lbHashId::SHA384, 5u);
}

TEST_F(LbMdTest, UnknownNumbersAreRefused)
{
    for (unsigned id : {0u, 1u, 2u, 6u, 7u, 0xFFFFFFFFu}) {
        lbHashId hashId;
        EXPECT_FALSE(hashId.Open(id)) << id;
        EXPECT_EQ(hashId.AlgorithmName(), nullptr);
    }
    EXPECT_FALSE(lbGlobal.trail.empty());
}

TEST_F(LbMdTest, DigestOnAnUnopenedHashIdFails)
{
    lbHashId never;
    lbMd md;
    EXPECT_FALSE(md.Open(never));
    EXPECT_FALSE(md.Init());
    uint32_t length = 0;
    EXPECT_FALSE(md.GetLength(length));
}

TEST_F(LbMdTest, TextIsLowerCaseHexAndBytesAreTheSameDigest)
{
    lbMd md;
    ASSERT_TRUE(OpenDigest(md, 3));
    ASSERT_TRUE(Finish(md, "abc"));
    std::string text;
    lbBytes bytes;
    ASSERT_TRUE(md.GetString(text));
    ASSERT_TRUE(md.GetBytes(bytes));
    EXPECT_EQ(text, ABC_SHA256);
    EXPECT_EQ(bytes.buffer.size(), 32u);
    EXPECT_EQ(Hex(bytes.buffer), text);
}

TEST_F(LbMdTest, LengthIsKnownFromTheOpenOnward)
{
    const std::pair<unsigned, uint32_t> cases[] = {{3, 32}, {4, 64}, {5, 48}};
    for (const auto& c : cases) {
        lbMd md;
        ASSERT_TRUE(OpenDigest(md, c.first));
        uint32_t length = 0;
        EXPECT_TRUE(md.GetLength(length));
        EXPECT_EQ(length, c.second) << c.first;
    }
}

TEST_F(LbMdTest, ResultsAreRefusedBeforeFinal)
{
    lbMd md;
    ASSERT_TRUE(OpenDigest(md, 3));
    ASSERT_TRUE(md.Init());
    std::string text = "unchanged";
    lbBytes bytes;
    EXPECT_FALSE(md.GetString(text));
    EXPECT_FALSE(md.GetBytes(bytes));
    EXPECT_EQ(text, "unchanged");
}

TEST_F(LbMdTest, EmptyUpdatesChangeNothing)
{
    lbMd md;
    ASSERT_TRUE(OpenDigest(md, 3));
    ASSERT_TRUE(md.Init());
    EXPECT_TRUE(md.Update("abc", 0));
    EXPECT_TRUE(md.Update("abc", 3));
    EXPECT_TRUE(md.Update(nullptr, 0));
    ASSERT_TRUE(md.Final());
    std::string text;
    md.GetString(text);
    EXPECT_EQ(text, ABC_SHA256);
}

TEST_F(LbMdTest, UpdateAfterFinalFailsAndInitStartsAgain)
{
    lbMd md;
    ASSERT_TRUE(OpenDigest(md, 3));
    ASSERT_TRUE(Finish(md, "xyz"));
    EXPECT_FALSE(md.Update("abc", 3));
    EXPECT_FALSE(md.Final());
    EXPECT_EQ(Digest(md, "abc"), ABC_SHA256);
}

TEST_F(LbMdTest, CopyOfARunningDigestContinuesOnItsOwn)
{
    lbMd original;
    ASSERT_TRUE(OpenDigest(original, 5));
    ASSERT_TRUE(original.Init());
    ASSERT_TRUE(original.Update("a", 1));
    lbMd copy(original);
    ASSERT_TRUE(original.Update("bc", 2));
    ASSERT_TRUE(copy.Update("bX", 2));
    ASSERT_TRUE(original.Final());
    ASSERT_TRUE(copy.Final());
    std::string fromOriginal, fromCopy;
    original.GetString(fromOriginal);
    copy.GetString(fromCopy);
    EXPECT_EQ(fromOriginal, ABC_SHA384);
    EXPECT_EQ(fromCopy, DigestOf(5, "abX"));
}

TEST_F(LbMdTest, AssignedFinishedDigestKeepsItsResult)
{
    lbMd original;
    ASSERT_TRUE(OpenDigest(original, 4));
    ASSERT_TRUE(Finish(original, "abc"));
    lbMd assigned;
    assigned = original;
    original.Close();
    std::string text;
    EXPECT_TRUE(assigned.GetString(text));
    EXPECT_EQ(text, ABC_SHA512);
    uint32_t length = 0;
    EXPECT_TRUE(assigned.GetLength(length));
    EXPECT_EQ(length, 64u);
}

TEST_F(LbMdTest, CopyOfAnOpenedButUnstartedDigestCanStart)
{
    lbMd original;
    ASSERT_TRUE(OpenDigest(original, 3));
    lbMd copy(original);
    EXPECT_EQ(Digest(copy, "abc"), ABC_SHA256);
}

TEST_F(LbMdTest, CloseForgetsTheAlgorithm)
{
    lbMd md;
    ASSERT_TRUE(OpenDigest(md, 3));
    EXPECT_TRUE(md.Close());
    uint32_t length = 0;
    EXPECT_FALSE(md.GetLength(length));
    EXPECT_FALSE(md.Init());
}
