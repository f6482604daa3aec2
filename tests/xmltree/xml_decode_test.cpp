// References, line ends, attribute normalisation and the internal DTD subset.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "xmltree/xml_test_support.hpp"

namespace {

bool owned_text(const XmlNode* node) {
    return (node->flags & XML_TEXT_OWNED) != 0;
}

// The ownership byte of the attribute pair at `index`.
unsigned char owner_byte(const XmlNode* node, std::size_t index) {
    std::size_t end = 0;
    while (node->attrs[end] != nullptr) end += 2;
    return static_cast<unsigned char>(node->attrs[end + 1][index]);
}

TEST(XmlDecode, CharacterAndPredefinedEntityReferences) {
    Parsed p = parse_text("<a>&lt;&#x41;&#233;</a>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(p.root()->text, "\x3C\x41\xC3\xA9");
    EXPECT_TRUE(owned_text(p.root()));  // the first expansion outgrew its reference

    Parsed kept = parse_text("<a>&#0;|&#12|&foo;|&#x;|&</a>");
    EXPECT_STREQ(kept.root()->text, "&#0;|&#12|&foo;|&#x;|&");
    EXPECT_FALSE(owned_text(kept.root()));

    Parsed all = parse_text("<a>&amp;&gt;&quot;&apos;&amp;amp;</a>");
    EXPECT_STREQ(all.root()->text, "&>\"'&amp;");

    Parsed shrink = parse_text("<a>x&#65;y&#x20AC;z&#65536;</a>");
    EXPECT_STREQ(shrink.root()->text, "xAy\xE2\x82\xACz\xF0\x90\x80\x80");
    EXPECT_FALSE(owned_text(shrink.root()));  // references only shrink in place
}

TEST(XmlDecode, Utf8EncodingOfLargeValues) {
    Parsed p = parse_text("<a>&#127;|&#128;|&#2047;|&#2048;|&#x10FFFF;|&#x7FFFFFFF;|&#x-41;</a>");
    ASSERT_EQ(p.error(), "");
    const std::string expected =
        "\x7F|\xC2\x80|\xDF\xBF|\xE0\xA0\x80|\xF4\x8F\xBF\xBF|\xFD\xBF\xBF\xBF\xBF\xBF|\xBF";
    EXPECT_EQ(std::string(p.root()->text), expected);
}

TEST(XmlDecode, LineEndsAreNormalisedEverywhere) {
    Parsed p = parse_text("<a k='1\r\n2'>x\r\ny\rz\r\r\n<![CDATA[c\r\nd]]></a>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(p.root()->text, "x\ny\nz\n\nc\nd");
    EXPECT_STREQ(xml_attr(p.root(), "k"), "1 2");
}

TEST(XmlDecode, AttributeWhitespaceAndCdataSections) {
    Parsed p = parse_text("<a t='x\ty&#9;z' e='&lt;&amp;'><![CDATA[&lt;&#65;]]></a>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(xml_attr(p.root(), "t"), "x y\tz");  // a decoded character is never re-examined
    EXPECT_STREQ(xml_attr(p.root(), "e"), "<&");
    EXPECT_EQ(owner_byte(p.root(), 0), ' ');
    EXPECT_EQ(owner_byte(p.root(), 1), XML_TEXT_OWNED);
    EXPECT_STREQ(p.root()->text, "&lt;&#65;");
}

TEST(XmlDtd, DeclaredEntitiesExpandRecursively) {
    Parsed p = parse_text(
        "<!DOCTYPE r [\n"
        "  <!ENTITY % pre 'pa'>\n"
        "  <!ENTITY who \"%pre;rt &amp; &inner;\">\n"
        "  <!ENTITY inner 'in'>\n"
        "  <!ENTITY ext SYSTEM \"file.ent\">\n"
        "  <!ENTITY lt 'not used'>\n"
        "]>\n"
        "<r k='&who;'>&who;|&inner;|&ext;|&lt;</r>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(p.root()->text, "part & in|in|&ext;|<");
    EXPECT_STREQ(xml_attr(p.root(), "k"), "part & in");
    // Stored names end with ';'; the table keeps the predefined pairs first.
    EXPECT_STREQ(p.doc->entities[10], "who;");
    EXPECT_STREQ(p.doc->entities[11], "part &amp; &inner;");
    EXPECT_STREQ(p.doc->entities[12], "inner;");
    EXPECT_STREQ(p.doc->entities[14], "lt;");
    EXPECT_EQ(p.doc->entities[16], nullptr);
}

TEST(XmlDtd, CircularDeclarationsAreRefused) {
    Parsed p = parse_text("<!DOCTYPE r [\n<!ENTITY a '&b;'>\n<!ENTITY b 'x&a;'>\n]><r>&a;</r>");
    EXPECT_EQ(p.error(), error_prefix(3) + "circular entity declaration &b;");
    EXPECT_EQ(p.root()->name, nullptr);

    Parsed self = parse_text("<!DOCTYPE r [<!ENTITY s 'a&s;'>]><r/>");
    EXPECT_EQ(self.error(), error_prefix(1) + "circular entity declaration &s;");

    Parsed fine = parse_text("<!DOCTYPE r [<!ENTITY a 'x'><!ENTITY b '&a;&a;'>]><r>&b;</r>");
    EXPECT_EQ(fine.error(), "");
    EXPECT_STREQ(fine.root()->text, "xx");
}

TEST(XmlDtd, AttributeDefaults) {
    Parsed p = parse_text(
        "<!DOCTYPE r [\n"
        "<!ATTLIST e c CDATA 'd&amp;x' t (one|two) ' two  ' i CDATA #IMPLIED n NMTOKEN #IMPLIED\n"
        "            f CDATA #FIXED 'fixed' nt NOTATION (p|q) 'p'>\n"
        "<!ATTLIST e late CDATA 'never'>\n"
        "<!ATTLIST skipped>\n"
        "<!-- <!ATTLIST e c CDATA 'comment'> -->\n"
        "<?in dtd?>\n"
        "]>\n"
        "<r><e t='  a   b '/><e c='own'/><x c='no'/></r>");
    ASSERT_EQ(p.error(), "");
    XmlNode* e1 = xml_child(p.root(), "e");
    XmlNode* e2 = e1->next;
    EXPECT_STREQ(xml_attr(e1, "c"), "d&x");
    EXPECT_STREQ(xml_attr(e1, "t"), "a b");  // declared non-CDATA: normalised
    EXPECT_STREQ(xml_attr(e2, "t"), "two");
    EXPECT_STREQ(xml_attr(e2, "c"), "own");
    EXPECT_STREQ(xml_attr(e1, "f"), "fixed");
    EXPECT_STREQ(xml_attr(e1, "nt"), "p");
    EXPECT_EQ(xml_attr(e1, "i"), nullptr);
    EXPECT_EQ(xml_attr(e1, "n"), nullptr);
    EXPECT_EQ(xml_attr(e1, "late"), nullptr);  // a second declaration is never found
    EXPECT_EQ(xml_attr(xml_child(p.root(), "x"), "t"), nullptr);
    ASSERT_NE(p.doc->attr_defaults[1], nullptr);
    EXPECT_STREQ(p.doc->attr_defaults[1][0], "e");
    EXPECT_EQ(p.doc->attr_defaults[2], nullptr);
    EXPECT_STREQ(p.doc->instructions[0][0], "in");
    EXPECT_STREQ(p.doc->instructions[0][1], "dtd");
    EXPECT_STREQ(p.doc->instructions[0][3], "<");
}

TEST(XmlDtd, MalformedDeclarations) {
    EXPECT_EQ(parse_text("<!DOCTYPE r [<!ATTLIST e]><r/>").error(),
              error_prefix(1) + "malformed <!ATTLIST");
    EXPECT_EQ(parse_text("<!DOCTYPE r [<!ATTLIST]><r/>").error(),
              error_prefix(1) + "unclosed <!ATTLIST");
    EXPECT_EQ(parse_text("<!DOCTYPE r [<!ATTLIST \n]><r/>").error(),
              error_prefix(1) + "unclosed <!ATTLIST");
    EXPECT_EQ(parse_text("<!DOCTYPE r [\n<!ATTLIST e a (x|y 'x'>]><r/>").error(),
              error_prefix(2) + "malformed <!ATTLIST");
    EXPECT_EQ(parse_text("<!DOCTYPE r [<!ATTLIST e a CDATA bad>]><r/>").error(),
              error_prefix(1) + "malformed <!ATTLIST");
    EXPECT_EQ(parse_text("<!DOCTYPE r [<!ATTLIST e a CDATA 'x>]><r/>").error(),
              error_prefix(1) + "malformed <!ATTLIST");
    // A parameter reference outside a declaration ends the subset.
    Parsed stop = parse_text("<!DOCTYPE r [ %p; <!ENTITY a 'x'> ]><r>&a;</r>");
    EXPECT_EQ(stop.error(), "");
    EXPECT_STREQ(stop.root()->text, "&a;");
    Parsed standalone = parse_text(
        "<?xml version='1.0' standalone='yes'?><!DOCTYPE r [ %p; <!ENTITY a 'x'> ]><r>&a;</r>");
    EXPECT_STREQ(standalone.root()->text, "x");
}

TEST(XmlDecode, ExpansionStaysBoundedOnHostileInput) {
    std::string dtd = "<!DOCTYPE r [<!ENTITY e0 'xxxxxxxxxxxxxxxx'>";
    for (int i = 1; i < 12; ++i) {
        std::string refs;
        for (int k = 0; k < 10; ++k) refs += "&e" + std::to_string(i - 1) + ";";
        dtd += "<!ENTITY e" + std::to_string(i) + " '" + refs + "'>";
    }
    Parsed p = parse_text(dtd + "]><r>&e11;</r>");
    EXPECT_EQ(p.error(), "");
    EXPECT_LT(std::strlen(p.root()->text), std::size_t{1} << 26U);
}

}  // namespace
