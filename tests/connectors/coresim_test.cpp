// The simulated device core without its process: its answers (case by case
// from coresim_cases.txt), where its settings start, the framing of its
// command FIFOs and the FIFOs it keeps.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "core.hpp"
#include "fifo.hpp"
#include "property_map.hpp"
#include "regexparser.hpp"
#include "settings_table.hpp"
#include "support/table.hpp"

namespace {

std::string request(const std::string& body, const std::string& sub = "42") {
    return "<client_request client_id=\"CLI\" sub_client_id=\"" + sub +
           "\" message_seq=\"5\"><request>" + body + "</request></client_request>";
}

std::string response_of(coresim::Core& core, const std::string& body) {
    const coresim::Output out = core.handle(1, request(body));
    return out.records.empty() ? "" : out.records.front().second;
}

using CoreSimCase = testing::TestWithParam<tx::test::NamedCase>;

TEST_P(CoreSimCase, Answers) {
    coresim::Core core;
    for (tx::test::Row row : GetParam().rows) {
        row.resize(2);
        const std::string response = response_of(core, row[0]);
        EXPECT_NE(response.find(row[1]), std::string::npos) << row[0] << "\n" << response;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, CoreSimCase,
                         testing::ValuesIn(tx::test::read_named_cases(CORESIM_CASES)),
                         [](const auto& info) { return info.param.name; });

// What a setting starts with is written once, in the command table; the core
// adds only what no help line states.
TEST(CoreSim, StartsEverySettingAtTheDefaultItsHelpStates) {
    const coresim::Core core;
    std::size_t checked = 0;
    for (const PropertyNameMap* row = property_name_map; row->key != nullptr; ++row) {
        const std::optional<std::string> stated = tx::grammar::stated_default(row->name);
        if (!stated) continue;
        ASSERT_NE(core.setting(row->key), nullptr) << row->key;
        EXPECT_EQ(*core.setting(row->key), *stated) << row->key;
        ++checked;
    }
    EXPECT_GT(checked, 150u);
    for (const DeviceValue& own : coresim_device_values()) {
        const char* name = property_name_for_key(own.key);
        EXPECT_TRUE(name != nullptr && !tx::grammar::stated_default(name)) << own.key;
    }
}

// The core refuses what the grammar refuses, and takes what it takes.
TEST(CoreSim, NumericRangesAreTheGrammarsOwn) {
    for (const SettingRange& range : coresim_ranges()) {
        const std::string name = property_name_for_key(range.key);
        const auto accepted = [&](double value) {
            std::ostringstream line;
            line << "set " << name << " ";
            if (range.kind == SettingKind::integer) {
                line << static_cast<long>(value);
            } else {
                line << value;
            }
            return tx::grammar::match(line.str(), {0, true}).accepted();
        };
        // Settings that no command sets (they are reported) have no row to agree with.
        if (!accepted(range.min) && !accepted(range.max)) continue;
        EXPECT_TRUE(accepted(range.min) && accepted(range.max)) << range.key;
        EXPECT_FALSE(accepted(range.min - 1) || accepted(range.max + 1)) << range.key;
    }
}

TEST(CoreSim, EachRegisteredConnectorHearsAChangeOnce) {
    coresim::Core core;
    const std::string set_mute =
        "<action property=\"audio.mute\">set</action><p name=\"default\">1</p>";
    EXPECT_EQ(core.handle(1, request(set_mute)).records.size(), 1u);  // nobody listens yet
    core.handle(1, request("<action>client_register_notify</action>", "100"));
    core.handle(1, request("<action>client_register_notify</action>", "101"));
    core.handle(0, request("<action>client_register_notify</action>", "0"));
    const coresim::Output out = core.handle(0, request(set_mute, "7"));
    ASSERT_EQ(out.records.size(), 3u);
    EXPECT_TRUE(out.changed);
    EXPECT_EQ(out.records[0].first, 0);
    EXPECT_NE(out.records[0].second.find("<server_response client_id=\"CLI\" sub_client_id=\"7\""),
              std::string::npos);
    EXPECT_EQ(out.records[1].first, 0);
    EXPECT_EQ(out.records[2].first, 1);
    EXPECT_NE(out.records[2].second.find("<notify event=\"audio.mute\"><v>1</v></notify>"),
              std::string::npos);
}

TEST(CoreSim, LongValuesStillFitOneRecord) {
    coresim::Core core;
    const std::string r =
        response_of(core, "<action property=\"sys.systemname\">set</action><p name=\"default\">" +
                              coresim::xml_escape(std::string(100, '&')) + "</p>");
    EXPECT_LT(r.size(), coresim::RECORD_LEN);
    EXPECT_TRUE(r.ends_with("</response></server_response>")) << r;
}

// Frames a command FIFO's byte stream, read `chunk` bytes at a time, and
// answers each record.
std::vector<std::string> answers(coresim::Core& core, const std::string& stream,
                                 std::size_t chunk) {
    coresim::RecordFramer framer;
    std::vector<std::string> out;
    for (std::size_t at = 0; at < stream.size(); at += chunk) {
        framer.append(std::string_view(stream).substr(at, chunk));
        while (const auto record = framer.next()) {
            for (const auto& answer : core.handle(1, *record).records) out.push_back(answer.second);
        }
    }
    return out;
}

std::string padded(std::string text) {
    text.resize(coresim::RECORD_LEN, '\0');
    return text;
}

TEST(CoreSim, StrayWritesCostNoMoreThanThemselvesAndCutRequestsAreRefused) {
    const std::string set =
        request("<action property=\"audio.mute\">set</action><p name=\"default\">1</p>", "7");
    const std::string get = padded(request("<action property=\"audio.mute\">get</action>", "8"));
    const std::string stream = "junk" + get + set.substr(0, 90) + get + std::string(600, 'x') +
                               get + padded(set.substr(0, 120)) + std::string(3, '\0') + get +
                               padded("garbage <<< >>>") + get;
    const std::string refused =
        "sub_client_id=\"7\" message_seq=\"5\"><response><action>error"
        "</action><v>request cut short</v></response>";
    for (const std::size_t chunk : {std::size_t{4096}, std::size_t{100}, std::size_t{1}}) {
        coresim::Core core;
        const std::vector<std::string> out = answers(core, stream, chunk);
        ASSERT_EQ(out.size(), 7u) << chunk;
        for (const std::size_t i : {0, 2, 3, 5, 6})
            EXPECT_NE(out[i].find("sub_client_id=\"8\""), std::string::npos) << out[i];
        EXPECT_NE(out[1].find(refused), std::string::npos) << out[1];
        EXPECT_NE(out[4].find(refused), std::string::npos) << out[4];
        EXPECT_EQ(*core.setting("audio.mute"), "0");
    }
}

TEST(CoreSim, WhateverTakesTheFifosPathIsReplacedByAFifoThatIsHeld) {
    const std::string path =
        (std::filesystem::temp_directory_path() / ("coresim_fifo_" + std::to_string(getpid())))
            .string();
    coresim::HeldFifo fifo(path);
    // A regular file where the FIFO belongs; then, while it is held, another
    // regular file and someone else's FIFO.
    for (const bool other_fifo : {false, false, true}) {
        std::filesystem::remove(path);
        if (other_fifo)
            mkfifo(path.c_str(), 0666);
        else
            std::ofstream(path) << "not a FIFO";
        ASSERT_TRUE(fifo.keep());
        struct stat on_path {};
        struct stat held {};
        ASSERT_EQ(lstat(path.c_str(), &on_path), 0);
        ASSERT_EQ(fstat(fifo.fd(), &held), 0);
        EXPECT_TRUE(S_ISFIFO(on_path.st_mode));
        EXPECT_EQ(held.st_ino, on_path.st_ino);
    }
    std::filesystem::remove(path);
}

}  // namespace
