// The XML tree library: parsing and building against tables of cases, each
// case also with every allocation failing in turn, and the structure that
// the text of a tree does not show.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fixed_text.hpp"
#include "support/table.hpp"
#include "xmltree.hpp"

// The test is linked with the allocator wrapped (see CMakeLists.txt): once
// armed, allocation number `fail_at` fails, and blocks are counted.
static long fail_at = 0;  // 0: disarmed
static long allocations;  // since arming
static long live;         // allocated minus freed since arming

static bool refused() {
    return fail_at != 0 && ++allocations == fail_at;
}
static void* counted(void* block) {
    live += fail_at != 0 && block != nullptr;
    return block;
}

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size) {
    return refused() ? nullptr : counted(__real_malloc(size));
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
    return refused() ? nullptr : counted(__real_calloc(count, size));
}
void* __wrap_realloc(void* block, std::size_t size) {
    if (refused()) return nullptr;
    void* moved = __real_realloc(block, size);
    return block == nullptr ? counted(moved) : moved;
}
void __wrap_free(void* block) {
    live -= fail_at != 0 && block != nullptr;
    __real_free(block);
}
}

namespace {

using Case = std::vector<std::string>;
using Shown = std::vector<std::string>;

// \n \r \t \\ and \xHH stand for those bytes.
using tx::test::unescape;

// Fields are unescaped where they are used: a build script is cut at blanks first.
std::vector<Case> read_cases(const std::string& name) {
    std::vector<Case> cases = tx::test::read_table(std::string(TX_XML_CASES) + "/" + name, true);
    for (Case& fields : cases) fields.resize(6);
    EXPECT_FALSE(cases.empty()) << name;
    return cases;
}

// What a case shows, from field `first` on: the error text ("out of memory"
// when an allocation failed), the rendering of the root, its children's
// chains, the rendering of one part of the tree.
Shown expected(const Case& c, std::size_t first) {
    Shown shown;
    for (std::size_t i = first; i < first + 4; ++i) shown.push_back(unescape(c[i]));
    return shown;
}

// The children of `parent` by name in document order, then the name groups
// along the sibling chain, each as the positions of its next chain.
std::string chains(XmlNode* parent) {
    std::vector<XmlNode*> order;
    std::string out;
    for (XmlNode* n = parent->child; n != nullptr && order.size() < 99; n = n->ordered) {
        order.push_back(n);
        out += std::string(n->name) + " ";
    }
    out += "/";
    for (XmlNode* head = parent->child; head != nullptr && out.size() < 999; head = head->sibling) {
        for (XmlNode* n = head; n != nullptr && out.size() < 999; n = n->next) {
            const auto at = std::find(order.begin(), order.end(), n) - order.begin();
            out.append(n == head ? " " : ",").append(std::to_string(at));
        }
    }
    return out;
}

void describe(XmlNode* root, XmlNode* part, Shown& out) {
    for (auto [node, text] : {std::pair{root, &out[1]}, std::pair{part, &out[3]}}) {
        const tx::HeapText rendered(node != nullptr ? xml_render(node) : nullptr);
        if (node != nullptr && rendered == nullptr) out[0] = "out of memory";
        if (rendered != nullptr) *text = rendered.get();
    }
    out[2] = chains(root);
}

// Fields: z (the input and its terminator), x (its bytes only) or f (from a
// file), the input, then what it shows; the part is the root's first child.
Shown parse_case(const Case& c) {
    std::string input = unescape(c[1]);
    input.resize(input.size() + (c[0] == "z"));
    std::FILE* file = c[0] == "f" ? std::tmpfile() : nullptr;
    if (file != nullptr) {
        std::fwrite(input.data(), 1, input.size(), file);
        std::rewind(file);
    }
    const XmlDocumentPtr doc(file != nullptr ? xml_parse_fd(fileno(file))
                                             : xml_parse_string(input.data(), input.size()));
    if (file != nullptr) std::fclose(file);
    Shown out{doc == nullptr ? "out of memory" : doc->error, "", "", ""};
    if (doc != nullptr) describe(doc.get(), doc->child, out);
    return out;
}

// A heap copy that the wrapper counts but never refuses.
char* heap_copy(const std::string& text) {
    live += fail_at != 0;
    return std::strcpy(static_cast<char*>(__real_malloc(text.size() + 1)), text.c_str());
}

// Runs a case of build_cases.txt (its script is explained there).
Shown build_case(const Case& c) {
    std::deque<std::string> kept;  // borrowed strings outlive the tree
    std::istringstream words(c[0]);
    std::string word;
    words >> word;
    const XmlDocumentPtr doc(xml_new(word == "~" ? nullptr : kept.emplace_back(word).c_str()));
    XmlNode* at = doc.get();
    while (at != nullptr && words >> word) {
        const std::string arg = unescape(word.substr(1));
        const std::size_t split = arg.find_first_of("@=");
        const char* name = kept.emplace_back(arg.substr(0, split)).c_str();
        const char* value =
            split == std::string::npos ? nullptr : kept.emplace_back(arg.substr(split + 1)).c_str();
        if (word[0] == '+') at = xml_add_child(doc.get(), name, std::stoul(value));
        if (word[0] == '^') at = doc.get();
        if (word[0] == '=') xml_set_text(at, kept.emplace_back(arg).c_str());
        if (word[0] == '*') xml_set_text(at, heap_copy(arg))->flags |= XML_TEXT_OWNED;
        if (word[0] == '@' || word[0] == '-') at = xml_set_attr(at, name, value);
        if (word[0] == '#') at->flags |= XML_DUP;
        if (word[0] == '#') at = xml_set_attr(at, heap_copy(name), heap_copy(value));
    }
    Shown out{doc == nullptr || at == nullptr ? "out of memory" : "", "", "", ""};
    if (out[0].empty()) describe(doc.get(), at == doc.get() ? nullptr : at, out);
    return out;
}

TEST(XmlTables, ParseAndBuildCases) {
    for (const Case& c : read_cases("parse_cases.txt"))
        EXPECT_EQ(parse_case(c), expected(c, 2)) << c[1];
    for (const Case& c : read_cases("build_cases.txt"))
        EXPECT_EQ(build_case(c), expected(c, 1)) << c[0];
}

// Whichever allocation fails, the call reports it (null, or the parse error)
// or does without it and gives the same result; nothing leaks either way.
TEST(XmlTables, EveryAllocationFailingInTurn) {
    auto each_failure = [](const Case& c, auto run, const Shown& want) {
        for (long n = 1;; ++n) {
            fail_at = n;
            allocations = live = 0;
            const Shown got = run(c);
            fail_at = 0;
            EXPECT_EQ(live, 0) << "allocation " << n << " in " << c[0] << c[1];
            if (!got[0].ends_with("out of memory") || allocations < n) {
                EXPECT_EQ(got, want) << n << c[1];
            }
            if (allocations < n) return;
        }
    };
    for (const Case& c : read_cases("parse_cases.txt")) each_failure(c, parse_case, expected(c, 2));
    for (const Case& c : read_cases("build_cases.txt")) each_failure(c, build_case, expected(c, 1));
}

TEST(XmlStructure, OwnershipPathsAndFreeingALaterPart) {
    std::string text =
        "<!DOCTYPE r [<!ATTLIST r e CDATA 'd'><!ATTLIST r f CDATA 'g'>]>"
        "<r a='&lt;' b='&amp;' c='x'>&lt;<v>1</v><s>&amp;<c/></s><v>2</v></r>";
    const XmlDocumentPtr doc(xml_parse_string(text.data(), text.size() + 1));
    XmlNode* v = doc->child;
    XmlNode* s = v->sibling;
    // Only a replacement longer than its reference moves a string to the heap.
    EXPECT_EQ(doc->flags & XML_TEXT_OWNED, XML_TEXT_OWNED);
    EXPECT_EQ(s->flags & XML_TEXT_OWNED, 0);
    EXPECT_STREQ(doc->attrs[7], "\x40  ");         // XML_TEXT_OWNED for the first value
    EXPECT_EQ(xml_attr(doc.get(), "f"), nullptr);  // a later declaration is never found
    doc->flags |= XML_DUP;
    xml_set_attr(doc.get(), heap_copy("d"), heap_copy("v"));
    xml_set_attr(doc.get(), "b", "borrowed");
    EXPECT_STREQ(doc->attrs[9], "\x40  \xC0");  // the added pair owns both strings
    const XmlPathStep second[] = {{"v", 1}}, third[] = {{"v", 2}};
    const XmlPathStep stop[] = {{"s", 0}, {"", 0}, {"c", 0}}, at_s[] = {{"s", -1}, {"c", 0}};
    EXPECT_STREQ(xml_path_get(doc.get(), second)->text, "2");
    EXPECT_EQ(xml_path_get(doc.get(), third), nullptr);
    EXPECT_EQ(xml_path_get(doc.get(), stop), s);
    EXPECT_EQ(xml_path_get(doc.get(), at_s), s);
    // The caller unlinks; xml_free takes the element, its children and those after it.
    v->ordered = v->sibling = v->next = nullptr;
    xml_free(s);
    xml_add_child(doc.get(), "d", 0);
    EXPECT_STREQ(tx::HeapText(xml_render(doc.get())).get(),
                 "<r a=\"&lt;\" b=\"borrowed\" c=\"x\" d=\"v\" e=\"d\"><d></d>&lt;<v>1</v></r>");
}

TEST(XmlStructure, NullArgumentsDeepTreesAndHostileEntities) {
    EXPECT_EQ(xml_add_child(nullptr, "x", 0), nullptr);
    EXPECT_EQ(xml_set_text(nullptr, "x"), nullptr);
    EXPECT_EQ(xml_set_attr(nullptr, "x", "y"), nullptr);
    EXPECT_EQ(xml_attr(nullptr, "x"), nullptr);
    EXPECT_EQ(xml_child(nullptr, "x"), nullptr);
    EXPECT_STREQ(tx::HeapText(xml_render(nullptr)).get(), "");
    xml_free(nullptr);
    EXPECT_NE(XmlDocumentPtr(xml_new("a"))->entities, XmlDocumentPtr(xml_new("b"))->entities);
    // Nothing recurses along the depth of a tree.
    std::string deep;
    for (int i = 0; i < 40000; ++i) deep += i < 20000 ? "<d>" : "</d>";
    std::string input = deep;
    const XmlDocumentPtr doc(xml_parse_string(input.data(), input.size() + 1));
    EXPECT_EQ(tx::HeapText(xml_render(doc.get())).get(), deep);
    // Expansion stops at a budget: eleven levels of ten references would give 1.6 TB.
    std::string bomb = "<!DOCTYPE r [<!ENTITY e0 'xxxxxxxxxxxxxxxx'>";
    for (int i = 1; i < 12; ++i) {
        const std::string ref = "&e" + std::to_string(i - 1) + ";",
                          refs = ref + ref + ref + ref + ref;
        bomb += "<!ENTITY e" + std::to_string(i) + " '" + refs + refs + "'>";
    }
    bomb += "]><r>&e11;</r>";
    const XmlDocumentPtr boom(xml_parse_string(bomb.data(), bomb.size() + 1));
    EXPECT_STREQ(boom->error, "");
    // Expanded until the 16 MiB budget runs out, then the references stay as
    // written: a run of whole e0 texts, then nothing but "&eN;".
    const std::string_view text = boom->text;
    const std::size_t expanded = text.find_first_not_of('x');
    ASSERT_NE(expanded, std::string_view::npos) << "expanded past the budget";
    EXPECT_EQ(expanded % 16, 0u);
    EXPECT_GT(expanded, std::size_t{1} << 23U);
    EXPECT_LE(expanded, std::size_t{1} << 24U);
    std::string_view rest = text.substr(expanded);
    std::size_t references = 0;
    while (rest.starts_with("&e")) {
        const std::size_t end = rest.find(';');
        ASSERT_NE(end, std::string_view::npos) << rest.substr(0, 40);
        EXPECT_EQ(rest.substr(2, end - 2).find_first_not_of("0123456789"), std::string_view::npos);
        rest.remove_prefix(end + 1);
        ++references;
    }
    EXPECT_EQ(rest, "") << "neither expanded nor a reference";
    EXPECT_GT(references, 0u);
}

}  // namespace
