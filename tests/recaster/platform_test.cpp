// The word size and byte order the build was made for: the 32-bit ARM build
// must really be 32-bit, and the on-disk words must not depend on either.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "containerLayout.h"
#include "keyname.h"

using markforge::load_be32;
using markforge::store_be32;

TEST(Platform, PointerSizeIsTheOneTheBuildWasMadeFor)
{
    EXPECT_EQ(sizeof(void*), static_cast<size_t>(MARKFORGE_EXPECTED_POINTER_SIZE));
}

TEST(Platform, RegistryGeneratorIsTheFourteenthPointerSizedField)
{
    EXPECT_EQ(offsetof(markforgeRegistryRecord, mfPluginKeynameGenerator), 13 * sizeof(void*));
    EXPECT_EQ(sizeof(markforgeRegistryRecord), 14 * sizeof(void*));
}

TEST(Platform, ComponentRecordIs540BytesWhateverTheWordSize)
{
    EXPECT_EQ(sizeof(markforge::CompBlock), 540u);
}

TEST(Platform, StoreBe32WritesMostSignificantByteFirst)
{
    uint8_t bytes[4] = {};
    store_be32(bytes, 0xDEADC0DE);
    const uint8_t expected[4] = {0xDE, 0xAD, 0xC0, 0xDE};
    EXPECT_EQ(0, std::memcmp(bytes, expected, sizeof bytes));
}

TEST(Platform, LoadBe32ReadsMostSignificantByteFirst)
{
    const uint8_t bytes[4] = {0xFE, 0xED, 0xFA, 0xCE};
    EXPECT_EQ(load_be32(bytes), 0xFEEDFACEu);
}

TEST(Platform, Be32RoundTripsAtUnalignedAddresses)
{
    const uint32_t values[] = {0u, 1u, 0x80u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x01020304u};
    uint8_t buffer[16];
    for (size_t offset = 0; offset < 4; ++offset) {
        for (uint32_t value : values) {
            std::memset(buffer, 0xAA, sizeof buffer);
            store_be32(buffer + 1 + offset, value);
            EXPECT_EQ(load_be32(buffer + 1 + offset), value) << "offset " << offset;
            EXPECT_EQ(buffer[offset], 0xAA) << "byte before the word was touched";
            EXPECT_EQ(buffer[offset + 5], 0xAA) << "byte after the word was touched";
        }
    }
}

TEST(Platform, ToBe32InMemoryLaysTheBytesOutBigEndian)
{
    const uint32_t word = markforge::to_be32_in_memory(0x11223344);
    uint8_t bytes[4];
    std::memcpy(bytes, &word, sizeof bytes);
    EXPECT_EQ(load_be32(bytes), 0x11223344u);
}
