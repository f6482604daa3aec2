// The message stack, the word ring and the block/table helpers.
#include "queue.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bin_serialization.hpp"

namespace {

class MessageStack : public ::testing::Test {
  protected:
    void SetUp() override { message_stack_clear(); }
    void TearDown() override { message_stack_clear(); }
};

TEST_F(MessageStack, TwentyFirstPushIsRefusedAndPopIsNewestFirst) {
    for (int i = 1; i <= 20; ++i) message_stack_push("text " + std::to_string(i));
    testing::internal::CaptureStdout();
    message_stack_push("text 21");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "queue:60: queue if full, unable to enqueue");
    EXPECT_EQ(message_stack_count(), 20);

    char out[64];
    for (int i = 20; i >= 1; --i) {
        std::memset(out, 0, sizeof out);
        message_stack_pop(out, sizeof out - 1);
        EXPECT_STREQ(out, ("text " + std::to_string(i)).c_str());
    }
    EXPECT_EQ(message_stack_count(), 0);
}

TEST_F(MessageStack, ShortPopLeavesNoTerminatorAndLongerPopPads) {
    message_stack_push("abcdef");
    char out[8];
    std::memset(out, 'X', sizeof out);
    message_stack_pop(out, 4);
    EXPECT_EQ(std::string(out, 8), "abcdXXXX");

    message_stack_push("ab");
    std::memset(out, 'X', sizeof out);
    message_stack_pop(out, 6);
    EXPECT_EQ(std::string(out, 8), std::string("ab\0\0\0\0XX", 8));
}

TEST_F(MessageStack, PopWaitsForAPushFromAnotherThread) {
    std::atomic<bool> popped{false};
    char out[32] = {};
    std::thread consumer([&] {
        message_stack_pop(out, sizeof out - 1);
        popped = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(popped.load());
    message_stack_push("late");
    consumer.join();
    EXPECT_STREQ(out, "late");
}

TEST(WordRing, CapacityOneAlternatesStrictlyAndKeepsOrder) {
    std::array<std::uint32_t, 1> storage{};
    WordRing ring{};
    ring_init(ring, storage);
    std::vector<std::uint32_t> taken;
    std::atomic<int> puts{0};
    std::thread producer([&] {
        for (std::uint32_t w = 1; w <= 200; ++w) {
            ring_put(ring, w);
            ++puts;
        }
    });
    for (int i = 0; i < 200; ++i) {
        const std::uint32_t w = ring_take(ring);
        // The producer can be at most one word ahead of the consumer.
        EXPECT_LE(puts.load(), i + 2);
        taken.push_back(w);
    }
    producer.join();
    for (std::uint32_t i = 0; i < 200; ++i) EXPECT_EQ(taken[i], i + 1);
    EXPECT_EQ(ring_count(ring), 0u);
}

TEST(WordRing, WrapsAroundAndCounts) {
    std::array<std::uint32_t, 3> storage{};
    WordRing ring{};
    ring_init(ring, storage);
    for (std::uint32_t round = 0; round < 5; ++round) {
        ring_put(ring, round * 10 + 1);
        ring_put(ring, round * 10 + 2);
        EXPECT_EQ(ring_count(ring), 2u);
        EXPECT_EQ(ring_take(ring), round * 10 + 1);
        EXPECT_EQ(ring_take(ring), round * 10 + 2);
    }
    EXPECT_EQ(ring_count(ring), 0u);
}

class BlockFiles : public ::testing::Test {
  protected:
    std::filesystem::path dir;
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() / ("conn_block_" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
};

TEST_F(BlockFiles, SaveThenLoadRoundTripsAndShortFileFails) {
    std::array<unsigned char, 276> block{};
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i * 7);
    const std::string path = (dir / "record.bin").string();
    EXPECT_EQ(block_save(block.data(), block.size(), path.c_str()), 1);
    EXPECT_EQ(std::filesystem::file_size(path), block.size());

    std::array<unsigned char, 276> loaded{};
    EXPECT_EQ(block_load(loaded.data(), loaded.size(), path.c_str()), 1);
    EXPECT_EQ(loaded, block);

    // Saving again truncates: a smaller block leaves a file too short to load.
    EXPECT_EQ(block_save(block.data(), 10, path.c_str()), 1);
    loaded.fill(0);
    EXPECT_EQ(block_load(loaded.data(), loaded.size(), path.c_str()), 0);
    EXPECT_EQ(loaded[9], block[9]);  // what was read stays
}

TEST_F(BlockFiles, UnopenableFilesPrintTheirTexts) {
    char buffer[8] = {};
    const std::string missing = (dir / "absent" / "x.bin").string();
    testing::internal::CaptureStdout();
    EXPECT_EQ(block_load(buffer, sizeof buffer, missing.c_str()), 0);
    EXPECT_EQ(block_save(buffer, sizeof buffer, missing.c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bin_serialization:68: failed to open file " + missing + "\n" +
                  "bin_serialization:36: failed to open file " + missing + "\n");
}

TEST(Tables, NameValueAndPairLookupsAreExact) {
    RecordSlot table[RECORD_SLOT_COUNT] = {};
    std::strcpy(table[0].name, "codec");
    std::strcpy(table[0].value, "G722");
    std::strcpy(table[3].name, "codec");
    std::strcpy(table[3].value, "second");
    std::strcpy(table[14].name, "last");
    std::strcpy(table[14].value, "15th");
    EXPECT_STREQ(table_value(table, "codec"), "G722");
    EXPECT_STREQ(table_value(table, "last"), "15th");
    EXPECT_EQ(table_value(table, "Codec"), nullptr);
    EXPECT_EQ(table_value(table, "cod"), nullptr);

    const TextPair pairs[] = {{"audio.mute", "mute"},
                              {"audio.speaker-mute", "speaker-mute"},
                              {"sys.date-time", "date-time"},
                              {"sys.date-time", "date-time"},
                              {nullptr, nullptr}};
    EXPECT_STREQ(pair_first_of("speaker-mute", pairs), "audio.speaker-mute");
    EXPECT_STREQ(pair_second_of("audio.mute", pairs), "mute");
    EXPECT_EQ(pair_first_of("Mute", pairs), nullptr);
    EXPECT_EQ(pair_second_of("audio", pairs), nullptr);
    EXPECT_EQ(pair_second_of("x", nullptr), nullptr);
}

TEST(Strip, RemovesExactlyOneTrailingBlank) {
    char a[] = "a ";
    EXPECT_EQ(strip_trailing_space(a), 1u);
    EXPECT_STREQ(a, "a");
    char blank[] = " ";
    EXPECT_EQ(strip_trailing_space(blank), 1u);
    EXPECT_STREQ(blank, " ");
    char two[] = "val x  ";
    EXPECT_EQ(strip_trailing_space(two), 6u);
    EXPECT_STREQ(two, "val x ");
    char none[] = "val";
    EXPECT_EQ(strip_trailing_space(none), 3u);
    char empty[] = "";
    EXPECT_EQ(strip_trailing_space(empty), 0u);
}

}  // namespace
