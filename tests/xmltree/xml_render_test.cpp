// Rendering: escaping, subtrees, defaults, instructions, round trips.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "xmltree/xml_test_support.hpp"

namespace {

TEST(XmlRender, BuiltRequest) {
    XmlDocumentPtr doc(xml_new("request"));
    XmlNode* action = xml_add_child(doc.get(), "action", 1);
    xml_set_text(action, "get");
    EXPECT_EQ(render(doc.get()), "<request><action>get</action></request>");
    xml_set_attr(action, "property", "audio.speaker-volume");
    xml_set_text(action, "set");
    XmlNode* p = xml_add_child(doc.get(), "p", 2);
    xml_set_attr(p, "name", "default");
    xml_set_text(p, "9");
    EXPECT_EQ(render(doc.get()),
              "<request><action property=\"audio.speaker-volume\">set</action>"
              "<p name=\"default\">9</p></request>");
    EXPECT_EQ(render(p), "<p name=\"default\">9</p>");

    XmlDocumentPtr empty(xml_new("a"));
    EXPECT_EQ(render(empty.get()), "<a></a>");
    EXPECT_EQ(render(nullptr), "");
    XmlDocumentPtr unnamed(xml_new(nullptr));
    EXPECT_EQ(render(unnamed.get()), "");
}

TEST(XmlRender, EscapingInTextAndAttributes) {
    const char value[] = "a<b & \"c\"\n\t'>\r\xC3\xA9";
    XmlDocumentPtr doc(xml_new("e"));
    xml_set_text(doc.get(), value);
    xml_set_attr(doc.get(), "v", value);
    EXPECT_EQ(render(doc.get()),
              "<e v=\"a&lt;b &amp; &quot;c&quot;&#xA;&#x9;'&gt;&#xD;\xC3\xA9\">"
              "a&lt;b &amp; \"c\"\n\t'&gt;&#xD;\xC3\xA9</e>");
}

TEST(XmlRender, ParsedDocumentsRoundTrip) {
    EXPECT_EQ(render(parse_text("<a>x<b/>y</a>").root()), "<a>x<b></b>y</a>");
    const std::string message =
        "<server_response client_id=\"CLI\" sub_client_id=\"123\" message_seq=\"7\">"
        "<response><action property=\"audio.speaker-volume\">get</action><v>9</v></response>"
        "</server_response>";
    EXPECT_EQ(render(parse_text(message).root()), message);
    EXPECT_EQ(render(parse_text("<a> <b>1</b> <c/> <b>2<d>x</d>3</b> tail </a>").root()),
              "<a> <b>1</b> <c></c> <b>2<d>x</d>3</b> tail </a>");
    EXPECT_EQ(render(parse_text("<a>&lt;&amp;<![CDATA[<&>]]></a>").root()),
              "<a>&lt;&amp;&lt;&amp;&gt;</a>");
}

TEST(XmlRender, SubtreeLeavesOutParentTextAndFollowers) {
    Parsed p = parse_text("<a>1<b>2<c/>3</b>4<d/>5</a>");
    XmlNode* b = xml_child(p.root(), "b");
    EXPECT_EQ(render(b), "<b>2<c></c>3</b>");
    EXPECT_EQ(render(p.root()), "<a>1<b>2<c></c>3</b>4<d></d>5</a>");  // links restored
    EXPECT_EQ(b->ordered, xml_child(p.root(), "d"));
    EXPECT_EQ(b->parent, p.root());
}

TEST(XmlRender, InstructionsAroundTheRoot) {
    Parsed p = parse_text("<?pi data?><?empty?><r><?pi inner?></r><?last x y?>");
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(render(p.root()), "<?pi data?>\n<?empty?>\n<r></r>\n<?pi inner?>\n<?last x y?>");
    XmlNode* child_doc = p.root();
    EXPECT_EQ(render(xml_add_child(child_doc, "k", 0)), "<k></k>");  // no instructions
}

TEST(XmlRender, DefaultsAreWrittenOut) {
    Parsed p = parse_text(
        "<!DOCTYPE r [<!ATTLIST e d CDATA 'dv' o CDATA 'ov' n NMTOKEN #IMPLIED>]>"
        "<r><e o='mine'/><e/></r>");
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(render(p.root()), "<r><e o=\"mine\" d=\"dv\"></e><e d=\"dv\" o=\"ov\"></e></r>");
    EXPECT_EQ(render(xml_child(p.root(), "e")), "<e o=\"mine\" d=\"dv\"></e>");
}

TEST(XmlRender, LargeOutputGrowsPastManyBlocks) {
    XmlDocumentPtr doc(xml_new("r"));
    const std::string long_text(5000, '&');
    xml_set_text(doc.get(), long_text.c_str());
    const std::string name(3000, 'n');
    xml_set_attr(doc.get(), name.c_str(), long_text.c_str());
    std::string escaped;
    for (std::size_t i = 0; i < long_text.size(); ++i) escaped += "&amp;";
    EXPECT_EQ(render(doc.get()), "<r " + name + "=\"" + escaped + "\">" + escaped + "</r>");
}

}  // namespace
