// Parsing: tree structure, offsets, end character, instructions, errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "xmltree/xml_test_support.hpp"

namespace {

TEST(XmlParseStructure, TextIsJoinedAndChildrenKeepTheirOffsets) {
    Parsed p = parse_text("<a>x<b/>y</a>");
    ASSERT_EQ(p.error(), "");
    XmlNode* a = p.root();
    EXPECT_STREQ(a->name, "a");
    EXPECT_STREQ(a->text, "xy");
    XmlNode* b = xml_child(a, "b");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->offset, 1U);
    EXPECT_STREQ(b->text, "");
    EXPECT_EQ(b->parent, a);
    EXPECT_EQ(a->parent, nullptr);
    EXPECT_EQ(p.doc->cursor, nullptr);
    EXPECT_EQ(xml_child(a, "c"), nullptr);
    EXPECT_EQ(xml_child(nullptr, "b"), nullptr);
}

TEST(XmlParseStructure, ChildrenFormNameGroupsAndADocumentOrderChain) {
    Parsed p = parse_text("<a><b/><c/><b/></a>");
    ASSERT_EQ(p.error(), "");
    XmlNode* b1 = p.root()->child;
    ASSERT_NE(b1, nullptr);
    EXPECT_STREQ(b1->name, "b");
    XmlNode* b2 = b1->next;
    ASSERT_NE(b2, nullptr);
    EXPECT_STREQ(b2->name, "b");
    EXPECT_EQ(b2->next, nullptr);
    XmlNode* c = b1->sibling;
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c->name, "c");
    EXPECT_EQ(c->sibling, nullptr);
    EXPECT_EQ(b2->sibling, nullptr);  // only group heads carry it
    EXPECT_EQ(b1->ordered, c);
    EXPECT_EQ(c->ordered, b2);
    EXPECT_EQ(b2->ordered, nullptr);
    EXPECT_EQ(xml_child(p.root(), "c"), c);
}

TEST(XmlParseStructure, NestedElementsAttributesAndWhitespaceRuns) {
    Parsed p = parse_text(
        "<server_response client_id=\"CLI\" sub_client_id='123' message_seq=\"7\">\n"
        "  <response><action property=\"audio.mute\">get</action><v>0</v></response>\n"
        "</server_response>");
    ASSERT_EQ(p.error(), "");
    XmlNode* root = p.root();
    EXPECT_STREQ(xml_attr(root, "client_id"), "CLI");
    EXPECT_STREQ(xml_attr(root, "sub_client_id"), "123");
    EXPECT_STREQ(xml_attr(root, "message_seq"), "7");
    EXPECT_EQ(xml_attr(root, "other"), nullptr);
    EXPECT_STREQ(root->text, "\n  \n");  // whitespace runs are kept
    XmlNode* response = xml_child(root, "response");
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->offset, 3U);
    XmlNode* action = xml_child(response, "action");
    ASSERT_NE(action, nullptr);
    EXPECT_STREQ(action->text, "get");
    EXPECT_STREQ(xml_attr(action, "property"), "audio.mute");
    EXPECT_STREQ(xml_child(response, "v")->text, "0");

    const XmlPathStep path[] = {{"response", 0}, {"v", 0}};
    EXPECT_EQ(xml_path_get(root, path), xml_child(response, "v"));
    const XmlPathStep missing[] = {{"response", 1}, {"v", 0}};
    EXPECT_EQ(xml_path_get(root, missing), nullptr);
    const XmlPathStep stop[] = {{"response", 0}, {"", 0}, {"nothing", 0}};
    EXPECT_EQ(xml_path_get(root, stop), response);
    const XmlPathStep negative[] = {{"response", -1}, {"v", 0}};
    EXPECT_EQ(xml_path_get(root, negative), response);
}

TEST(XmlParseStructure, AttributeOddities) {
    Parsed p = parse_text("<a b=c d e = 'f' g=\"\" h='x\"y'/>");
    ASSERT_EQ(p.error(), "");
    char** attrs = p.root()->attrs;
    const char* expected[][2] = {{"b", ""},  {"c", ""}, {"d", ""},
                                 {"e", "f"}, {"g", ""}, {"h", "x\"y"}};
    std::size_t i = 0;
    for (const auto& pair : expected) {
        ASSERT_NE(attrs[i], nullptr);
        EXPECT_STREQ(attrs[i], pair[0]);
        EXPECT_STREQ(attrs[i + 1], pair[1]);
        i += 2;
    }
    EXPECT_EQ(attrs[i], nullptr);
    EXPECT_STREQ(attrs[i + 1], "      ");  // nothing owned: all in the buffer
    EXPECT_EQ(p.root()->child, nullptr);
}

TEST(XmlParseStructure, EndCharacterStandsForTheOverwrittenLastByte) {
    Parsed exact = parse_exact("<a><b>t</b></a>");
    EXPECT_EQ(exact.error(), "");
    EXPECT_STREQ(xml_child(exact.root(), "b")->text, "t");

    Parsed self_closing = parse_exact("<a/>");
    EXPECT_EQ(self_closing.error(), "");
    EXPECT_STREQ(self_closing.root()->name, "a");

    Parsed attrs = parse_exact("<a k='v'>");
    EXPECT_EQ(attrs.error(), error_prefix(1) + "unclosed tag <a>");
    EXPECT_STREQ(xml_attr(attrs.root(), "k"), "v");

    // Without the terminator the last real byte is lost.
    Parsed cut = parse_exact("<a>text");
    EXPECT_EQ(cut.error(), error_prefix(1) + "unclosed tag <a>");
}

TEST(XmlParseStructure, MarkupAroundTheRoot) {
    Parsed p = parse_text(
        "<?xml version=\"1.0\"?>\n<!-- lead -->\n<?app first one?>\n<r>in<![CDATA[<raw> &amp;]]>"
        "<!-- inside --></r>\ntrailing text <!-- after --><?app second?>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(p.root()->text, "in<raw> &amp;");
    char** app = p.doc->instructions[0];
    ASSERT_NE(app, nullptr);
    EXPECT_STREQ(app[0], "app");
    EXPECT_STREQ(app[1], "first one");
    EXPECT_STREQ(app[2], "second");
    EXPECT_EQ(app[3], nullptr);
    EXPECT_STREQ(app[4], "<>");
    EXPECT_EQ(p.doc->instructions[1], nullptr);  // the xml declaration is not stored
    EXPECT_EQ(p.doc->standalone, 0);

    Parsed standalone = parse_text("<?xml version='1.0' standalone = 'yes'?><r/>");
    EXPECT_EQ(standalone.doc->standalone, 1);
    Parsed not_standalone = parse_text("<?xml standalone='no'?><r/>");
    EXPECT_EQ(not_standalone.doc->standalone, 0);
}

TEST(XmlParseStructure, Utf16InputIsConvertedFirst) {
    auto utf16 = [](std::u16string_view text, bool big_endian) {
        std::string bytes = big_endian ? "\xFE\xFF" : "\xFF\xFE";
        for (char16_t c : text) {
            const char hi = static_cast<char>(c >> 8U);
            const char lo = static_cast<char>(c & 0xFFU);
            bytes += big_endian ? std::string{hi, lo} : std::string{lo, hi};
        }
        return bytes;
    };
    const std::u16string text = u"<a k='\u00e9'>x\u20ac\U0001F600</a>";
    for (bool big_endian : {false, true}) {
        std::string bytes = utf16(text, big_endian);
        bytes += '!';  // odd trailing byte: ignored
        Parsed p = parse_exact(bytes);
        EXPECT_EQ(p.error(), "") << big_endian;
        EXPECT_STREQ(p.root()->text, "x\xE2\x82\xAC\xF0\x9F\x98\x80");
        EXPECT_STREQ(xml_attr(p.root(), "k"), "\xC3\xA9");
        ASSERT_NE(p.doc->utf8_copy, nullptr);
    }
    Parsed only_mark = parse_exact("\xFF\xFE");
    EXPECT_EQ(only_mark.error(), error_prefix(1) + "root tag missing");
}

TEST(XmlParseStructure, ParseFromDescriptorOwnsItsBuffer) {
    EXPECT_EQ(xml_parse_fd(-1), nullptr);
    char path[] = "/tmp/xmltree_fd_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string text = "<r><v>1</v></r>";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    XmlDocumentPtr doc(xml_parse_fd(fd));
    close(fd);
    unlink(path);
    ASSERT_NE(doc, nullptr);
    EXPECT_STREQ(xml_error_text(doc.get()), "");
    EXPECT_EQ(doc->buffer_len, SIZE_MAX);
    EXPECT_STREQ(xml_child(doc.get(), "v")->text, "1");
}

TEST(XmlParseErrors, MessagesAndLineNumbers) {
    struct Case {
        const char* input;
        std::string error;
    };
    const Case cases[] = {
        {"", "root tag missing"},
        {"just text", "root tag missing"},
        {"<!-- only a comment -->", "root tag missing"},
        {"<a>", "unclosed tag <a>"},
        {"<a></b>", "unexpected closing tag </b>"},
        {"</a>", "unexpected closing tag </a>"},
        {"<a/><b/>", "markup outside of root element"},
        {"<a k='v></a>", "missing '"},
        {"<a k=\"v></a>", "missing \""},
        {"<a k='v'x</a>", "missing >"},
        {"<a/ ></a>", "missing >"},
        {"<a><!-- x -- y --></a>", "unclosed <!--"},
        {"<a><!-- x </a>", "unclosed <!--"},
        {"<a><![CDATA[x</a>", "unclosed <![CDATA["},
        {"<!DOCTYPE a [ <!ENTITY x 'y'> <a/>", "unclosed <!DOCTYPE"},
        {"<a><?pi x</a>", "unclosed <?"},
        {"<a>< b/></a>", "unexpected <"},
        {"<a><\xC3\xA9/></a>", "unexpected <"},
        {"<a><!x></a>", "unexpected <"},
    };
    for (const Case& c : cases) {
        Parsed p = parse_text(c.input);
        EXPECT_EQ(p.error(), error_prefix(1) + c.error) << c.input;
    }
    EXPECT_EQ(parse_exact("").error(), error_prefix(1) + "root tag missing");
    EXPECT_EQ(parse_text("<a>\n\n<b></c></a>").error(),
              error_prefix(3) + "unexpected closing tag </c>");
    EXPECT_EQ(parse_text("<a><!--\r\r--><b x='1></a>").error(), error_prefix(1) + "missing '");
    EXPECT_EQ(parse_text("<a>\n<b>\n</b>\n").error(), error_prefix(4) + "unclosed tag <a>");
    // An over-long name is cut to the field.
    const std::string long_name(300, 'n');
    Parsed long_error = parse_text("<" + long_name + ">");
    EXPECT_EQ(long_error.error().size(), XML_ERROR_LEN - 1);
    EXPECT_EQ(long_error.error().rfind(error_prefix(1) + "unclosed tag <nnn", 0), 0U);
}

TEST(XmlParseErrors, TheTreeBuiltSoFarStaysAttached) {
    Parsed p = parse_text("<a><b k='1'>t</b><c><d></x></c></a>");
    EXPECT_EQ(p.error(), error_prefix(1) + "unexpected closing tag </x>");
    XmlNode* b = xml_child(p.root(), "b");
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(b->text, "t");
    EXPECT_STREQ(xml_attr(b, "k"), "1");
    ASSERT_NE(xml_child(xml_child(p.root(), "c"), "d"), nullptr);
    EXPECT_STREQ(p.doc->cursor->name, "d");
}

TEST(XmlParseStructure, AHundredThousandSiblings) {
    constexpr std::size_t count = 100000;
    std::string text = "<list>";
    std::string expected = "<list>";
    for (std::size_t i = 0; i < count; ++i) {
        if (i % 3 == 0) {
            text += "\n <item k='" + std::to_string(i) + "'>v</item>";
            expected += "\n <item k=\"" + std::to_string(i) + "\">v</item>";
        } else {
            text += "<other/>";
            expected += "<other></other>";
        }
    }
    text += "\n</list>";
    expected += "\n</list>";
    Parsed p = parse_text(text);
    ASSERT_EQ(p.error(), "");
    std::size_t items = 0;
    std::size_t ordered = 0;
    std::size_t last_offset = 0;
    for (XmlNode* n = xml_child(p.root(), "item"); n != nullptr; n = n->next) ++items;
    for (XmlNode* n = p.root()->child; n != nullptr; n = n->ordered) {
        EXPECT_GE(n->offset, last_offset);
        last_offset = n->offset;
        ++ordered;
    }
    EXPECT_EQ(items, (count + 2) / 3);
    EXPECT_EQ(ordered, count);
    EXPECT_EQ(std::strlen(p.root()->text), 2 * ((count + 2) / 3) + 1);
    EXPECT_EQ(xml_child(p.root(), "other"), p.root()->child->sibling);
    EXPECT_EQ(p.root()->child->sibling->sibling, nullptr);

    XmlText out(xml_render(p.root()));
    EXPECT_TRUE(std::string(out.get()) == expected);
}

TEST(XmlParseStructure, DeepNestingParsesRendersAndFrees) {
    constexpr std::size_t depth = 20000;
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += "<d>";
    text += "x";
    for (std::size_t i = 0; i < depth; ++i) text += "</d>";
    Parsed p = parse_text(text);
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(render(p.root()), text);
}

}  // namespace
