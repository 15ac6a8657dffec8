// markforge::tableOfContents: the encoding against a byte-by-byte layout,
// and one field at a time made non-canonical.
#include <gtest/gtest.h>

#include "containerBlock.h"
#include "tableOfContents.h"

namespace {

using markforge::tableEntry;
using markforge::tableOfContents;
using testblocks::Bytes;

const Bytes DIGEST32(32, 0xAB);
const Bytes DIGEST64(64, 0xCD);

// The documented layout, written out field by field.
Bytes Written(uint32_t version = 1)
{
    Bytes out{'m', 'a', 'r', 'k', 'f', 'o', 'r', 'g', 'e', '-', 't', 'a', 'b', 'l', 'e', 0};
    testblocks::PutBe32(out, version);  // 16: version
    testblocks::PutBe32(out, 2);        // 20: count
    testblocks::PutBe32(out, 0);        // entry 0: index
    Bytes name(16, 0);
    name[0] = 'k';
    out.insert(out.end(), name.begin(), name.end());  // name field
    testblocks::PutBe32(out, 0);                      // offset
    testblocks::PutBe32(out, 100);                    // size
    testblocks::PutBe32(out, 32);                     // digest length
    out.insert(out.end(), DIGEST32.begin(), DIGEST32.end());
    testblocks::PutBe32(out, 1);  // entry 1
    name[0] = 'r';
    name[1] = 'f';
    out.insert(out.end(), name.begin(), name.end());
    testblocks::PutBe32(out, 100);
    testblocks::PutBe32(out, 7);
    testblocks::PutBe32(out, 64);
    out.insert(out.end(), DIGEST64.begin(), DIGEST64.end());
    return out;
}

std::string Refusal(const Bytes& bytes)
{
    std::vector<tableEntry> entries;
    std::string reason;
    EXPECT_FALSE(tableOfContents::Decode(bytes, entries, reason));
    EXPECT_TRUE(entries.empty());
    return reason;
}

TEST(TableOfContents, EncodesTheDocumentedLayout)
{
    const std::vector<tableEntry> entries{{0, "k", 0, 100, DIGEST32}, {1, "rf", 100, 7, DIGEST64}};
    EXPECT_EQ(tableOfContents::Encode(entries), Written());
    std::vector<tableEntry> decoded;
    std::string reason;
    ASSERT_TRUE(tableOfContents::Decode(Written(), decoded, reason)) << reason;
    ASSERT_EQ(decoded.size(), 2u);
    EXPECT_EQ(decoded[1].name, "rf");
    EXPECT_EQ(decoded[1].offset, 100u);
    EXPECT_EQ(decoded[1].size, 7u);
    EXPECT_EQ(decoded[1].digest, DIGEST64);
}

TEST(TableOfContents, TheLabelIsTheFirstSixteenBytes)
{
    const Bytes table = Written();
    EXPECT_TRUE(tableOfContents::StartsWithLabel(table.data(), table.size()));
    EXPECT_FALSE(tableOfContents::StartsWithLabel(table.data(), 15));
    Bytes other = table;
    other[15] = ' ';
    EXPECT_FALSE(tableOfContents::StartsWithLabel(other.data(), other.size()));
    EXPECT_EQ(Refusal(other), "it does not start with the table label");
}

TEST(TableOfContents, RefusesEveryNonCanonicalField)
{
    EXPECT_EQ(Refusal({}), "it does not start with the table label");
    EXPECT_EQ(Refusal(Written(2)), "table version 2 is not 1");
    Bytes count = Written();
    testblocks::PokeBe32(count, 20, 0xFFFFFFFF);
    EXPECT_EQ(Refusal(count), "it lists 4294967295 components, more than its bytes can hold");
    Bytes index = Written();
    testblocks::PokeBe32(index, 24 + 64, 5);  // entry 0 takes 32 + 32 bytes
    EXPECT_EQ(Refusal(index), "entry 1 carries index 5");
    Bytes name = Written();
    name[24 + 4 + 15] = 'x';  // entry 0's name field without its NUL
    EXPECT_EQ(Refusal(name), "entry 0: the name field is not NUL-terminated and NUL-padded");
    Bytes padding = Written();
    padding[24 + 4 + 5] = 'x';  // a byte after the name's NUL
    EXPECT_EQ(Refusal(padding), "entry 0: the name field is not NUL-terminated and NUL-padded");
    Bytes digest = Written();
    testblocks::PokeBe32(digest, 24 + 28, 20);
    EXPECT_EQ(Refusal(digest), "entry 0: digest length 20 names no SHA-2");
    Bytes cut = Written();
    cut.pop_back();
    EXPECT_EQ(Refusal(cut), "entry 1 is cut short");
    Bytes longer = Written();
    longer.push_back(0);
    EXPECT_EQ(Refusal(longer), "1 bytes follow the last entry");
}

}  // namespace
