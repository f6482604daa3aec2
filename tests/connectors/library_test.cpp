// Library routines of the connectors that no connector of this system calls:
// one smoke test each, so that they keep doing what their users rely on.
#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "bin_serialization.hpp"
#include "queue.hpp"

namespace {

TEST(Library, RingHandsOutWordsInOrderAndPutWaitsForRoom) {
    std::uint32_t storage[2];
    WordRing ring;
    ring_init(ring, storage);
    ring_put(ring, 1);
    ring_put(ring, 2);
    std::thread third([&ring] { ring_put(ring, 3); });  // waits: the ring is full
    EXPECT_EQ(ring_take(ring), 1u);
    third.join();
    EXPECT_EQ(ring_count(ring), 2u);
    EXPECT_EQ(ring_take(ring), 2u);
    EXPECT_EQ(ring_take(ring), 3u);
}

TEST(Library, BlocksTablesAndPairs) {
    const char block[6] = "saved";
    char loaded[6] = {};
    ASSERT_EQ(block_save(block, sizeof block, "/tmp/block.bin"), 1);
    EXPECT_EQ(block_load(loaded, sizeof loaded, "/tmp/block.bin"), 1);
    EXPECT_STREQ(loaded, "saved");
    EXPECT_EQ(block_load(loaded, sizeof loaded + 1, "/tmp/block.bin"), 0);  // file too short
    testing::internal::CaptureStdout();
    EXPECT_EQ(block_load(loaded, 1, "/tmp/absent/block.bin"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bin_serialization:68: failed to open file /tmp/absent/block.bin\n");
    EXPECT_EQ(block_save(block, 1, "/tmp/absent/block.bin"), 0);

    RecordSlot slots[RECORD_SLOT_COUNT] = {{"mode", "rc"}, {"mode", "later"}, {"level", "3"}};
    EXPECT_STREQ(table_value(slots, "mode"), "rc");
    EXPECT_EQ(table_value(slots, "mod"), nullptr);

    const TextPair pairs[] = {{"a", "1"}, {"b", "2"}, {"c", "2"}, {nullptr, nullptr}};
    EXPECT_STREQ(pair_first_of("2", pairs), "b");
    EXPECT_STREQ(pair_second_of("c", pairs), "2");
    EXPECT_EQ(pair_second_of("d", pairs), nullptr);
}

}  // namespace
