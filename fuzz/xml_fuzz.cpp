// Feeds arbitrary bytes to the XML parser, then reads, renders, edits and
// frees whatever tree comes out.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "xmltree.hpp"

namespace {

// Visits every element without recursion and reads its attributes, its
// children by name and defaults for names it does not carry.
void walk(XmlNode* root) {
    XmlNode* node = root;
    std::size_t seen = 0;
    while (node != nullptr && seen < 100000) {
        ++seen;
        for (std::size_t i = 0; node->attrs[i] != nullptr; i += 2) {
            const char* value = xml_attr(node, node->attrs[i]);
            if (value == nullptr) std::abort();  // an own attribute is always found
        }
        (void)xml_attr(node, "property");
        (void)xml_attr(node, "absent-name");
        if (node->name != nullptr) (void)xml_child(node, node->name);
        (void)std::strlen(node->text);
        if (node->child != nullptr) {
            node = node->child;
            continue;
        }
        while (node != nullptr && node != root && node->ordered == nullptr) node = node->parent;
        node = (node == nullptr || node == root) ? nullptr : node->ordered;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<char> buffer(data, data + size);
    XmlDocument* doc = xml_parse_string(buffer.data(), buffer.size());
    (void)std::strlen(xml_error_text(doc));
    walk(doc);

    char* text = xml_render(doc);
    std::free(text);
    if (doc->child != nullptr) {
        std::free(xml_render(doc->child));
    }

    const XmlPathStep path[] = {{"response", 0}, {"action", 0}};
    (void)xml_path_get(doc, path);

    if (doc->name != nullptr) {
        XmlNode* added = xml_add_child(doc, "added", size % 7);
        xml_set_attr(added, "k", "v");
        xml_set_attr(doc, "extra", "1");
        xml_set_attr(doc, "extra", nullptr);
        std::free(xml_render(doc));
    }
    xml_free(doc);
    return 0;
}
