// The property name map and the action display map.
#include "property_map.hpp"

#include <map>
#include <string>

#include "test_support.hpp"

namespace {

TEST(PropertyMap, ShapeAndNamingRule) {
    std::size_t rows = 0;
    std::map<std::string, int> seen;
    for (const PropertyNameMap* row = property_name_map; row->key != nullptr; ++row) {
        ASSERT_NE(row->name, nullptr);
        const std::string_view key(row->key);
        const std::size_t dot = key.find('.');
        ASSERT_NE(dot, std::string_view::npos) << key;
        EXPECT_EQ(key.substr(dot + 1), row->name) << key;
        ++seen[row->key];
        ++rows;
    }
    EXPECT_EQ(rows, 265u);
    EXPECT_EQ(property_name_map[rows].name, nullptr);

    // Exactly two keys appear twice.
    std::map<std::string, int> twice;
    for (const auto& [key, n] : seen) {
        if (n > 1) {
            twice[key] = n;
        }
    }
    EXPECT_EQ(twice, (std::map<std::string, int>{{"sys.date-time", 2},
                                                 {"voip.dtmf-rtp-payload-type", 2}}));
    // Their places: the 18th and 59th voip rows, and two adjacent sys rows.
    EXPECT_STREQ(property_name_map[17].key, "voip.dtmf-rtp-payload-type");
    EXPECT_STREQ(property_name_map[58].key, "voip.dtmf-rtp-payload-type");
    EXPECT_STREQ(property_name_map[0].key, "voip.registrar");
    EXPECT_STREQ(property_name_map[65].key, "voip.vm-count");
    EXPECT_STREQ(property_name_map[66].key, "audio.all-mic-mute");
    EXPECT_STREQ(property_name_map[113].key, "sys.date-time");
    EXPECT_STREQ(property_name_map[114].key, "sys.date-time");
    EXPECT_STREQ(property_name_map[264].key, "heap.heap-smallest-allocation");
}

TEST(PropertyMap, LookupsAreExactAndFirstMatch) {
    EXPECT_STREQ(property_key_for_name("date-time"), "sys.date-time");
    EXPECT_STREQ(property_name_for_key("sys.date-time"), "date-time");
    EXPECT_STREQ(property_key_for_name("dtmf-rtp-payload-type"), "voip.dtmf-rtp-payload-type");
    EXPECT_STREQ(property_key_for_name("status"), "call.status");
    EXPECT_STREQ(property_key_for_name("mute"), "audio.mute");
    EXPECT_STREQ(property_key_for_name("speaker-mute"), "audio.speaker-mute");
    EXPECT_STREQ(property_key_for_name("bt-status"), "bt.bt-status");
    EXPECT_STREQ(property_key_for_name("ext-mic-mute"), "externalmic.ext-mic-mute");
    EXPECT_STREQ(property_key_for_name("heap-smallest-allocation"),
                 "heap.heap-smallest-allocation");
    EXPECT_STREQ(property_name_for_key("cymgr.cypress-version"), "cypress-version");

    for (const char* missing : {"Registrar", "val", "set", "get", "", "mute ", "audio.mute"}) {
        EXPECT_EQ(property_key_for_name(missing), nullptr) << missing;
    }
    for (const char* missing : {"mute", "Audio.mute", "audio.mute ", ""}) {
        EXPECT_EQ(property_name_for_key(missing), nullptr) << missing;
    }
    // Lengths count: a name with an embedded terminator is not its prefix.
    EXPECT_EQ(property_key_for_name(std::string_view("mute\0x", 6)), nullptr);
}

TEST(PropertyMap, ActionDisplayWords) {
    EXPECT_STREQ(action_name_for_key("set"), "val");
    EXPECT_STREQ(action_name_for_key("get"), "val");
    EXPECT_STREQ(action_name_for_key("client_register_notify"), "regnotify");
    EXPECT_EQ(action_name_for_key("report"), nullptr);
    EXPECT_EQ(action_name_for_key("SET"), nullptr);
    EXPECT_EQ(action_name_for_key(""), nullptr);
    EXPECT_EQ(action_name_map[3].action, nullptr);
    EXPECT_EQ(action_name_map[3].display, nullptr);
}

}  // namespace
