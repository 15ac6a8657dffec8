// markforge::digestStream: SHA-2 by the framework's numbers, fed whole or in
// pieces, and the rule of what a signature signs.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "digestStream.h"
#include "testKeys.h"

namespace {

using markforge::digestStream;

std::vector<uint8_t> Bytes(const std::string& text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

TEST(DigestStreamTest, StandardVectorsForEachNumber)
{
    const std::vector<uint8_t> abc = Bytes("abc");
    EXPECT_EQ(digestStream::Of(3, abc.data(), abc.size()),
              testsupport::FromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(digestStream::Of(5, abc.data(), abc.size()),
              testsupport::FromHex("cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358b"
                                   "aeca134c825a7"));
    EXPECT_EQ(digestStream::Of(4, abc.data(), abc.size()),
              testsupport::FromHex("ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836b"
                                   "a3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"));
    // Any other number is SHA-256, as the archive builder maps it.
    EXPECT_EQ(digestStream::Of(7, abc.data(), abc.size()), digestStream::Of(3, abc.data(), abc.size()));
    EXPECT_EQ(digestStream::Of(3, nullptr, 0),
              testsupport::FromHex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
}

TEST(DigestStreamTest, PiecesGiveTheDigestOfTheWhole)
{
    std::vector<uint8_t> data(10000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    for (uint32_t id : {3u, 4u, 5u}) {
        digestStream split(id);
        split.Update(data.data(), 1);
        split.Update(data.data() + 1, 4095);
        split.Update(data.data() + 4096, 0);
        split.Update(data.data() + 4096, data.size() - 4096);
        EXPECT_EQ(split.Final(), digestStream::Of(id, data.data(), data.size()));
    }
}

TEST(DigestStreamTest, NumbersLengthsAndNames)
{
    EXPECT_EQ(digestStream::LengthOf(3), 32u);
    EXPECT_EQ(digestStream::LengthOf(5), 48u);
    EXPECT_EQ(digestStream::LengthOf(4), 64u);
    EXPECT_EQ(digestStream::LengthOf(0), 32u);
    EXPECT_EQ(digestStream::KeptId(9), 3u);
    EXPECT_EQ(digestStream::IdForLength(32), 3u);
    EXPECT_EQ(digestStream::IdForLength(48), 5u);
    EXPECT_EQ(digestStream::IdForLength(64), 4u);
    EXPECT_EQ(digestStream::IdForLength(20), 0u);
    EXPECT_STREQ(digestStream::NameOf(5), "SHA-384");
}

TEST(DigestStreamTest, OpensslDigestForEachNumber)
{
    EXPECT_EQ(digestStream::AlgorithmOf(3), EVP_sha256());
    EXPECT_EQ(digestStream::AlgorithmOf(4), EVP_sha512());
    EXPECT_EQ(digestStream::AlgorithmOf(5), EVP_sha384());
    EXPECT_EQ(digestStream::AlgorithmOf(0), EVP_sha256());
    for (const uint32_t id : {3u, 4u, 5u})
        EXPECT_EQ(static_cast<size_t>(EVP_MD_get_size(digestStream::AlgorithmOf(id))), digestStream::LengthOf(id));
}

TEST(DigestStreamTest, ASignatureSignsTheUpperCaseHexTextHashedAgain)
{
    const std::vector<uint8_t> content = digestStream::Of(3, Bytes("abc").data(), 3);
    const std::vector<uint8_t> text = Bytes("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(markforge::SignedDigestOf(3, content), digestStream::Of(3, text.data(), text.size()));
}

}  // namespace
