// The fixed frame every written header block must have, checked with the
// test side's own field positions.
#pragma once

#include <gtest/gtest.h>

#include "containerBlock.h"

namespace testblocks {

// 4096 bytes, the opening canary, version 4 and the closing canary. Fatal
// when the size is wrong; wrap calls in ASSERT_NO_FATAL_FAILURE to stop there.
inline void ExpectBlockFrame(const Bytes& block)
{
    ASSERT_EQ(block.size(), BLOCK);
    EXPECT_EQ(PeekBe32(block, CANARY1_AT), 0xDEADC0DEu);
    EXPECT_EQ(PeekBe32(block, VERSION_AT), 4u);
    EXPECT_EQ(PeekBe32(block, CANARY2_AT), 0xFEEDFACEu);
}

}  // namespace testblocks
