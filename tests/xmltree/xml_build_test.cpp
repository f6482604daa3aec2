// Building trees in code: linking rules, text and attribute ownership, freeing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "xmltree/xml_test_support.hpp"

namespace {

std::vector<std::string> ordered_names(XmlNode* parent) {
    std::vector<std::string> names;
    for (XmlNode* n = parent->child; n != nullptr; n = n->ordered) names.emplace_back(n->name);
    return names;
}

TEST(XmlBuild, NewDocumentState) {
    XmlDocumentPtr doc(xml_new("request"));
    EXPECT_STREQ(doc->name, "request");
    EXPECT_STREQ(doc->text, "");
    EXPECT_EQ(doc->attrs, XML_NIL);
    EXPECT_EQ(doc->cursor, doc.get());
    EXPECT_STREQ(doc->error, "");
    EXPECT_EQ(doc->parent, nullptr);
    EXPECT_EQ(doc->child, nullptr);
    EXPECT_EQ(doc->attr_defaults, reinterpret_cast<char***>(XML_NIL));
    EXPECT_EQ(doc->instructions, reinterpret_cast<char***>(XML_NIL));
    const char* expected[] = {"lt;",   "&#60;", "gt;",   "&#62;", "quot;",
                              "&#34;", "apos;", "&#39;", "amp;",  "&#38;"};
    for (std::size_t i = 0; i < 10; ++i) EXPECT_STREQ(doc->entities[i], expected[i]);
    EXPECT_EQ(doc->entities[10], nullptr);
    XmlDocumentPtr other(xml_new("x"));
    EXPECT_NE(other->entities, doc->entities);  // each document has its own table
    EXPECT_EQ(XML_NIL[0], nullptr);
    EXPECT_STREQ(XML_NIL[1], "");

    EXPECT_EQ(xml_add_child(nullptr, "x", 0), nullptr);
    EXPECT_EQ(xml_set_text(nullptr, "x"), nullptr);
    EXPECT_EQ(xml_set_attr(nullptr, "x", "y"), nullptr);
    EXPECT_EQ(xml_attr(nullptr, "x"), nullptr);
    xml_free(nullptr);
}

TEST(XmlBuild, InsertionKeepsTheThreeChains) {
    XmlDocumentPtr doc(xml_new("r"));
    XmlNode* b5 = xml_add_child(doc.get(), "b", 5);
    XmlNode* c3 = xml_add_child(doc.get(), "c", 3);  // before b: new first child
    XmlNode* b7 = xml_add_child(doc.get(), "b", 7);
    XmlNode* c5 = xml_add_child(doc.get(), "c", 5);  // equal offset goes after b5
    XmlNode* d1 = xml_add_child(doc.get(), "d", 1);
    EXPECT_EQ(ordered_names(doc.get()), (std::vector<std::string>{"d", "c", "b", "c", "b"}));
    EXPECT_EQ(doc->child, d1);
    EXPECT_EQ(d1->ordered, c3);
    EXPECT_EQ(c3->ordered, b5);
    EXPECT_EQ(b5->ordered, c5);
    EXPECT_EQ(c5->ordered, b7);
    // Groups in order of their heads' offsets, each chained by next.
    EXPECT_EQ(d1->sibling, c3);
    EXPECT_EQ(c3->sibling, b5);
    EXPECT_EQ(b5->sibling, nullptr);
    EXPECT_EQ(c3->next, c5);
    EXPECT_EQ(b5->next, b7);
    EXPECT_EQ(xml_child(doc.get(), "b"), b5);
    EXPECT_EQ(xml_child(doc.get(), "c"), c3);
    EXPECT_EQ(c5->parent, doc.get());
    EXPECT_EQ(c5->offset, 5U);
}

TEST(XmlBuild, ANewHeadBeforeTheFirstChildKeepsTheOldHeadInBothChains) {
    XmlDocumentPtr doc(xml_new("r"));
    XmlNode* old_head = xml_add_child(doc.get(), "b", 5);
    XmlNode* c = xml_add_child(doc.get(), "c", 6);
    XmlNode* fresh = xml_add_child(doc.get(), "b", 2);
    EXPECT_EQ(doc->child, fresh);
    EXPECT_EQ(fresh->next, old_head);
    EXPECT_EQ(fresh->sibling, old_head);  // the old head is not taken out
    EXPECT_EQ(old_head->sibling, c);
    EXPECT_EQ(fresh->ordered, old_head);
    EXPECT_EQ(xml_child(doc.get(), "b"), fresh);

    // With an earlier group in front, the old head does leave the group chain.
    XmlDocumentPtr doc2(xml_new("r"));
    XmlNode* a = xml_add_child(doc2.get(), "a", 0);
    XmlNode* b5 = xml_add_child(doc2.get(), "b", 5);
    XmlNode* b3 = xml_add_child(doc2.get(), "b", 3);
    EXPECT_EQ(a->sibling, b3);
    EXPECT_EQ(b3->next, b5);
    EXPECT_EQ(b3->sibling, nullptr);
    EXPECT_EQ(b5->sibling, nullptr);
    EXPECT_EQ(ordered_names(doc2.get()), (std::vector<std::string>{"a", "b", "b"}));
}

TEST(XmlBuild, ManyAppendedAndInterleavedChildren) {
    // Long runs switch to remembered positions; chains must stay the same.
    XmlDocumentPtr doc(xml_new("r"));
    const char* names[] = {"a", "b", "c", "a", "d"};
    std::vector<XmlNode*> nodes;
    for (std::size_t i = 0; i < 200; ++i) {
        nodes.push_back(xml_add_child(doc.get(), names[i % 5], i / 2));
    }
    XmlNode* early = xml_add_child(doc.get(), "e", 10);   // in the middle
    XmlNode* first_b = xml_add_child(doc.get(), "b", 0);  // joins a group, equal offset
    for (std::size_t i = 200; i < 260; ++i) nodes.push_back(xml_add_child(doc.get(), "a", 100));
    std::size_t count = 0;
    std::size_t offset = 0;
    for (XmlNode* n = doc->child; n != nullptr; n = n->ordered, ++count) {
        EXPECT_GE(n->offset, offset);
        offset = n->offset;
    }
    EXPECT_EQ(count, 262U);
    std::size_t as = 0;
    for (XmlNode* n = xml_child(doc.get(), "a"); n != nullptr; n = n->next) {
        EXPECT_STREQ(n->name, "a");
        ++as;
    }
    EXPECT_EQ(as, 80U + 60U);
    EXPECT_EQ(xml_child(doc.get(), "e"), early);
    std::vector<std::string> heads;
    for (XmlNode* h = doc->child; h != nullptr; h = h->sibling) heads.emplace_back(h->name);
    EXPECT_EQ(heads, (std::vector<std::string>{"a", "b", "c", "d", "e"}));
    XmlNode* b = xml_child(doc.get(), "b");
    EXPECT_EQ(b, nodes[1]);
    EXPECT_EQ(b->next, first_b);  // offset 0 like nodes[1]: after it
    EXPECT_EQ(nodes.back()->ordered, nullptr);
}

TEST(XmlBuild, TextIsBorrowedUnlessOwned) {
    XmlDocumentPtr doc(xml_new("r"));
    static const char borrowed[] = "borrowed";
    EXPECT_EQ(xml_set_text(doc.get(), borrowed), doc.get());
    EXPECT_EQ(doc->text, borrowed);
    char* heap = static_cast<char*>(std::malloc(5));
    std::memcpy(heap, "heap", 5);
    xml_set_text(doc.get(), heap);
    doc->flags |= XML_TEXT_OWNED;  // handed over: freed by the next set or by xml_free
    xml_set_text(doc.get(), "again");
    EXPECT_EQ(doc->flags & XML_TEXT_OWNED, 0);
    EXPECT_STREQ(doc->text, "again");
}

TEST(XmlAttributes, SetReplaceRemoveAndOwnership) {
    XmlDocumentPtr doc(xml_new("r"));
    XmlNode* r = doc.get();
    xml_set_attr(r, "k", nullptr);  // missing and null: nothing happens
    EXPECT_EQ(r->attrs, XML_NIL);
    xml_set_attr(r, "a", "1");
    xml_set_attr(r, "b", "2");
    xml_set_attr(r, "c", "3");
    EXPECT_STREQ(xml_attr(r, "b"), "2");
    xml_set_attr(r, "b", "two");
    EXPECT_STREQ(xml_attr(r, "b"), "two");
    EXPECT_EQ(render(r), "<r a=\"1\" b=\"two\" c=\"3\"></r>");
    xml_set_attr(r, "b", nullptr);
    EXPECT_EQ(render(r), "<r a=\"1\" c=\"3\"></r>");
    EXPECT_EQ(xml_attr(r, "b"), nullptr);
    xml_set_attr(r, "zz", nullptr);
    EXPECT_EQ(render(r), "<r a=\"1\" c=\"3\"></r>");
    EXPECT_STREQ(r->attrs[5], "  ");

    // Handed-over strings are owned by the list and freed with it.
    r->flags |= XML_DUP;
    xml_set_attr(r, strdup("d"), strdup("4"));
    EXPECT_EQ(r->flags & XML_DUP, 0);
    EXPECT_EQ(static_cast<unsigned char>(r->attrs[7][2]), XML_NAME_OWNED | XML_TEXT_OWNED);
    r->flags |= XML_DUP;
    xml_set_attr(r, strdup("d"), strdup("5"));  // known name: the new copy is freed
    EXPECT_STREQ(xml_attr(r, "d"), "5");
    r->flags |= XML_DUP;
    xml_set_attr(r, strdup("a"), strdup("6"));  // borrowed name, owned value now
    EXPECT_EQ(static_cast<unsigned char>(r->attrs[7][0]), ' ' | XML_TEXT_OWNED);
    xml_set_attr(r, "a", "7");  // owned value freed, bit cleared
    EXPECT_EQ(static_cast<unsigned char>(r->attrs[7][0]), ' ');
    r->flags |= XML_DUP;
    xml_set_attr(r, strdup("e"), strdup("8"));
    xml_set_attr(r, "d", nullptr);  // owned name and value both freed
    EXPECT_EQ(render(r), "<r a=\"7\" c=\"3\" e=\"8\"></r>");
    xml_set_attr(r, "a", nullptr);
    xml_set_attr(r, "c", nullptr);
    xml_set_attr(r, "e", nullptr);
    EXPECT_EQ(r->attrs[0], nullptr);
    EXPECT_STREQ(r->attrs[1], "");
    EXPECT_EQ(render(r), "<r></r>");

    xml_free_attrs(nullptr);
    xml_free_attrs(XML_NIL);
    EXPECT_EQ(XML_NIL[0], nullptr);
}

TEST(XmlAttributes, DuplicatesAndLookupOrder) {
    Parsed p = parse_text("<r k='first' k='second'/>");
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(xml_attr(p.root(), "k"), "first");
    EXPECT_EQ(render(p.root()), "<r k=\"first\"></r>");
    char** list = p.root()->attrs;
    p.root()->attrs = nullptr;  // a null list answers nothing
    EXPECT_EQ(xml_attr(p.root(), "k"), nullptr);
    p.root()->attrs = list;
}

TEST(XmlAttributes, EditingParsedLists) {
    // Lists made by the parser come in several storage forms; every one of
    // them must take edits and be freed once.
    std::string text = "<r a='1' b='&lt;2'>";
    for (int i = 0; i < 12; ++i) {
        const std::string n = std::to_string(i);
        text += "<e";
        text += n;
        text += " x='";
        text += n;
        text += "' y='&amp;'/>";
    }
    text += "<many";
    for (int i = 0; i < 40; ++i) {
        const std::string n = std::to_string(i);
        text += " k";
        text += n;
        text += "='";
        text += n;
        text += "'";
    }
    text += "/></r>";
    Parsed p = parse_text(text);
    ASSERT_EQ(p.error(), "");
    XmlNode* r = p.root();
    xml_set_attr(r, "c", "3");
    xml_set_attr(r, "b", nullptr);
    EXPECT_STREQ(xml_attr(r, "a"), "1");
    EXPECT_EQ(xml_attr(r, "b"), nullptr);
    EXPECT_STREQ(xml_attr(r, "c"), "3");
    for (int i = 0; i < 12; ++i) {
        std::string name = "e";
        name += std::to_string(i);
        XmlNode* e = xml_child(r, name.c_str());
        ASSERT_NE(e, nullptr);
        EXPECT_STREQ(xml_attr(e, "y"), "&");
        if (i % 2 == 0) xml_set_attr(e, "y", "plain");
        if (i % 3 == 0) xml_set_attr(e, "x", nullptr);
    }
    XmlNode* many = xml_child(r, "many");
    ASSERT_NE(many, nullptr);
    EXPECT_STREQ(xml_attr(many, "k39"), "39");
    xml_set_attr(many, "k0", nullptr);
    EXPECT_STREQ(xml_attr(many, "k1"), "1");
    EXPECT_EQ(render(xml_child(r, "e0")), "<e0 y=\"plain\"></e0>");
    EXPECT_EQ(render(xml_child(r, "e1")), "<e1 x=\"1\" y=\"&amp;\"></e1>");
    EXPECT_EQ(render(r).rfind("<r a=\"1\" c=\"3\"><e0 ", 0), 0U);
}

TEST(XmlFree, WholeDocumentsAndSubtrees) {
    // A built document with owned strings everywhere frees cleanly (the
    // sanitizer build checks leaks and double frees).
    XmlDocument* doc = xml_new("r");
    for (int i = 0; i < 50; ++i) {
        XmlNode* child = xml_add_child(doc, "c", static_cast<std::size_t>(i));
        child->flags |= XML_DUP;
        xml_set_attr(child, strdup("k"), strdup("v"));
        xml_set_text(child, strdup("t"));
        child->flags |= XML_TEXT_OWNED;
        XmlNode* grandchild = xml_add_child(child, strdup("g"), 0);
        grandchild->flags |= XML_NAME_OWNED;
    }
    // Freeing a later part of the tree takes its followers with it once unlinked.
    XmlNode* keep = doc->child;
    for (int i = 0; i < 24; ++i) keep = keep->ordered;
    XmlNode* tail = keep->ordered;
    keep->ordered = nullptr;
    keep->next = nullptr;
    xml_free(tail);
    std::size_t left = 0;
    for (XmlNode* n = doc->child; n != nullptr; n = n->ordered) ++left;
    EXPECT_EQ(left, 25U);
    XmlNode* more = xml_add_child(doc, "c", 100);  // linking still works afterwards
    EXPECT_EQ(keep->ordered, more);
    xml_free(doc);

    // The same for the first elements of a parsed document.
    Parsed p = parse_text("<r><a k='1'/><b k='&lt;'>x&amp;y</b><c/></r>");
    XmlNode* a = p.root()->child;
    XmlNode* b = a->ordered;
    a->ordered = nullptr;
    a->sibling = nullptr;
    xml_free(b);
    EXPECT_EQ(render(p.root()), "<r><a k=\"1\"></a></r>");
}

}  // namespace
