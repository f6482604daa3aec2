// The property name map and the kernel command-line reader.
#include <string>

#include "grammar_cases.hpp"
#include "osal.hpp"
#include "property_map.hpp"

namespace {

using grammar_test::Case;

TEST(PropertyMap, Lookups) {
    for (const Case& c : grammar_test::read_cases("property_map.txt")) {
        ASSERT_EQ(c.size(), 3u) << c[0];
        const char* found = c[0] == "key"    ? property_key_for_name(c[1])
                            : c[0] == "name" ? property_name_for_key(c[1])
                                             : action_name_for_key(c[1]);
        EXPECT_EQ(found != nullptr ? found : "-", c[2]) << c[0] << " of '" << c[1] << "'";
    }
    // Every command name is its key without the namespace and the dot.
    for (const PropertyNameMap* row = property_name_map; row->key != nullptr; ++row) {
        const std::string_view key = row->key;
        EXPECT_EQ(key.substr(key.find('.') + 1), row->name) << key;
    }
}

TEST(Cmdline, ParametersAndTheVoipCapability) {
    for (const Case& c : grammar_test::read_cases("cmdline.txt")) {
        const grammar_test::FakeCmdline cmdline(c.at(1));
        if (c[0] == "voip") {
            EXPECT_EQ(osal_voip_capable(), c.at(2) != "0") << c[1];
            continue;
        }
        std::string out(std::stoul(c.at(3)), 'z');
        EXPECT_EQ(get_os_cmdline_param(c[2].c_str(), out.data(), out.size()), std::stoi(c.at(5)))
            << c[2] << " in " << c[1];
        EXPECT_EQ(out.c_str(), c.at(4)) << c[2] << " in " << c[1];
    }
}

}  // namespace
