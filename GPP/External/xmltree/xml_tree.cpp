// Building, linking, reading and freeing xmltree documents.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "xml_internal.hpp"
#include "xmltree.hpp"

namespace {

// The slot after XML_NIL's terminator is read as an ownership string by code
// that walks attribute lists, so it is an empty string, never garbage.
char nil_ownership[] = "";

// The five predefined entities; every document starts with its own copy of
// this table. Replacements are character references, decoded in turn.
char ent_lt[] = "lt;";
char ent_lt_r[] = "&#60;";
char ent_gt[] = "gt;";
char ent_gt_r[] = "&#62;";
char ent_quot[] = "quot;";
char ent_quot_r[] = "&#34;";
char ent_apos[] = "apos;";
char ent_apos_r[] = "&#39;";
char ent_amp[] = "amp;";
char ent_amp_r[] = "&#38;";
char* const predefined_entities[] = {ent_lt,   ent_lt_r,   ent_gt,  ent_gt_r,  ent_quot, ent_quot_r,
                                     ent_apos, ent_apos_r, ent_amp, ent_amp_r, nullptr};
constexpr std::size_t kPredefinedSlots = 10;

char*** nil_list() {
    return reinterpret_cast<char***>(XML_NIL);
}

char* ownership(char** list, std::size_t pairs) {
    return reinterpret_cast<char*>(list + 2 * pairs + 2);
}

bool same_name(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return a == b;
    return std::strcmp(a, b) == 0;
}

}  // namespace

char* XML_NIL[] = {nullptr, nil_ownership};

namespace xmltree_detail {

char kEmptyText[] = "";

void* area_alloc(XmlDocument* doc, std::size_t size) {
    auto* block = static_cast<DocumentBlock*>(doc);
    size = (size + alignof(XmlNode) - 1) & ~(alignof(XmlNode) - 1);
    if (block->area_left < size) {
        // Each block doubles the one before, up to a size the allocator
        // still takes from its heap.
        const std::size_t last = block->chained != nullptr ? block->chained->size : kFirstArea;
        const std::size_t wanted = std::max(size, std::min(2 * last, std::size_t{1} << 16U));
        auto* more = static_cast<AreaBlock*>(std::malloc(sizeof(AreaBlock) + wanted));
        if (more == nullptr) return nullptr;
        *more = AreaBlock{block->chained, wanted};
        block->chained = more;
        block->area_at = reinterpret_cast<unsigned char*>(more + 1);
        block->area_left = wanted;
    }
    void* at = block->area_at;
    block->area_at += size;
    block->area_left -= size;
    return at;
}

XmlNode* new_element(XmlDocument* doc, const char* name) {
    auto* node = static_cast<XmlNode*>(area_alloc(doc, sizeof(XmlNode)));
    if (node == nullptr) return nullptr;
    *node = XmlNode{};
    node->name = const_cast<char*>(name);
    node->attrs = XML_NIL;
    node->text = kEmptyText;
    return node;
}

char** new_attrs(XmlDocument* doc, std::size_t pairs) {
    auto** list = static_cast<char**>(area_alloc(doc, (2 * pairs + 2) * sizeof(char*) + pairs + 1));
    if (list == nullptr) return nullptr;
    char* owner = ownership(list, pairs);
    owner[pairs] = '\0';
    list[2 * pairs] = nullptr;
    list[2 * pairs + 1] = owner;
    return list;
}

char** copy_attrs(XmlDocument* doc, char** list, std::size_t pairs, std::size_t drop,
                  std::size_t extra) {
    const std::size_t kept = drop < pairs ? pairs - 1 : pairs;
    char** copy = new_attrs(doc, kept + extra);
    if (copy == nullptr) return nullptr;
    char* owner = copy[2 * (kept + extra) + 1];
    std::size_t at = 0;
    for (std::size_t i = 0; i < pairs; ++i) {
        if (i == drop) continue;
        copy[2 * at] = list[2 * i];
        copy[2 * at + 1] = list[2 * i + 1];
        owner[at++] = list[2 * pairs + 1][i];
    }
    std::memset(owner + kept, ' ', extra);
    return copy;
}

}  // namespace xmltree_detail

using namespace xmltree_detail;

// ---------------------------------------------------------------------------
// Building.

XmlDocument* xml_new(const char* name) {
    auto* block = static_cast<DocumentBlock*>(std::malloc(sizeof(DocumentBlock)));
    if (block == nullptr) return nullptr;
    XmlDocument* doc = block;
    *static_cast<XmlNode*>(doc) = XmlNode{};
    doc->name = const_cast<char*>(name);
    doc->attrs = XML_NIL;
    doc->text = kEmptyText;
    doc->cursor = doc;
    doc->buffer = nullptr;
    doc->buffer_len = 0;
    doc->utf8_copy = nullptr;
    doc->work_start = nullptr;
    doc->work_end = nullptr;
    std::memcpy(static_cast<void*>(block->own_entities), predefined_entities,
                sizeof predefined_entities);
    doc->entities = block->own_entities;
    doc->attr_defaults = nil_list();
    doc->instructions = nil_list();
    doc->standalone = 0;
    doc->error[0] = '\0';  // the rest of the text is written only with an error
    block->area_at = block->area;
    block->area_left = kFirstArea;
    block->chained = nullptr;
    return doc;
}

namespace {

// Document order: after every element whose offset is not greater.
void link_ordered(XmlNode* node, XmlNode* parent, XmlNode* head, std::size_t offset) {
    if (offset < head->offset) {
        parent->child = node;
        node->ordered = head;
        return;
    }
    XmlNode* at = head;
    while (at->ordered != nullptr && at->ordered->offset <= offset) at = at->ordered;
    node->ordered = at->ordered;
    at->ordered = node;
}

// The name group, and the group's place among the others.
void link_group(XmlNode* node, XmlNode* head, std::size_t offset) {
    XmlNode* previous = nullptr;
    XmlNode* group = head;
    while (group != nullptr && !same_name(group->name, node->name)) {
        previous = group;
        group = group->sibling;
    }
    if (group != nullptr && group->offset <= offset) {
        XmlNode* at = group;
        while (at->next != nullptr && at->next->offset <= offset) at = at->next;
        node->next = at->next;
        at->next = node;
        return;
    }
    if (group != nullptr && previous != nullptr) previous->sibling = group->sibling;
    node->next = group;
    XmlNode* before = nullptr;
    XmlNode* after = head;
    while (after != nullptr && after->offset <= offset) {
        before = after;
        after = after->sibling;
    }
    node->sibling = after;
    if (before != nullptr) before->sibling = node;
}

}  // namespace

XmlNode* xml_insert(XmlNode* node, XmlNode* parent, std::size_t offset) {
    if (node == nullptr || parent == nullptr) return node;
    node->next = nullptr;
    node->sibling = nullptr;
    node->ordered = nullptr;
    node->offset = offset;
    node->parent = parent;
    XmlNode* head = parent->child;
    if (head == nullptr) {
        parent->child = node;
        return node;
    }
    link_ordered(node, parent, head, offset);
    link_group(node, head, offset);
    return node;
}

XmlNode* xml_add_child(XmlNode* parent, const char* name, std::size_t offset) {
    if (parent == nullptr) return nullptr;
    return xml_insert(new_element(document_of(parent), name), parent, offset);
}

XmlNode* xml_set_text(XmlNode* node, const char* text) {
    if (node == nullptr) return nullptr;
    if ((node->flags & XML_TEXT_OWNED) != 0) std::free(node->text);
    node->flags = static_cast<std::uint16_t>(node->flags & ~XML_TEXT_OWNED);
    node->text = const_cast<char*>(text);
    return node;
}

XmlNode* xml_set_attr(XmlNode* node, const char* name, const char* value) {
    if (node == nullptr) return nullptr;
    const bool dup = (node->flags & XML_DUP) != 0;
    node->flags = static_cast<std::uint16_t>(node->flags & ~XML_DUP);
    if (node->attrs == nullptr) node->attrs = XML_NIL;
    char** list = node->attrs;
    std::size_t l = 0;
    while (list[l] != nullptr && std::strcmp(list[l], name) != 0) l += 2;
    std::size_t end = l;
    while (list[end] != nullptr) end += 2;
    XmlDocument* doc = document_of(node);
    // Strings handed over go with the node, or at once when they are not kept.
    if (list[l] == nullptr) {
        if (value == nullptr) return node;
        char** longer = copy_attrs(doc, list, end / 2, SIZE_MAX, 1);
        if (longer == nullptr) {
            if (dup) std::free(const_cast<char*>(name));
            if (dup) std::free(const_cast<char*>(value));
            return nullptr;
        }
        longer[l] = const_cast<char*>(name);
        longer[l + 1] = const_cast<char*>(value);
        longer[l + 3][l / 2] = static_cast<char>(dup ? XML_NAME_OWNED | XML_TEXT_OWNED : ' ');
        node->attrs = longer;
        return node;
    }
    if (dup) std::free(const_cast<char*>(name));
    char** shorter = value == nullptr ? copy_attrs(doc, list, end / 2, l / 2, 0) : nullptr;
    if (value == nullptr && shorter == nullptr) return nullptr;
    auto& byte = reinterpret_cast<unsigned char&>(list[end + 1][l / 2]);
    if ((byte & XML_TEXT_OWNED) != 0) std::free(list[l + 1]);
    if (value != nullptr) {
        byte = static_cast<unsigned char>(dup ? byte | XML_TEXT_OWNED : byte & ~XML_TEXT_OWNED);
        list[l + 1] = const_cast<char*>(value);
        return node;
    }
    if ((byte & XML_NAME_OWNED) != 0) std::free(list[l]);
    node->attrs = shorter;
    return node;
}

// ---------------------------------------------------------------------------
// Reading.

XmlNode* xml_child(XmlNode* node, const char* name) {
    if (node == nullptr) return nullptr;
    XmlNode* child = node->child;
    while (child != nullptr && !same_name(child->name, name)) child = child->sibling;
    return child;
}

namespace xmltree_detail {

const char* attr_lookup(const XmlNode* node, const char* name, char*** defaults) {
    if (node->attrs == nullptr) return nullptr;
    for (std::size_t i = 0; node->attrs[i] != nullptr; i += 2) {
        if (std::strcmp(node->attrs[i], name) == 0) return node->attrs[i + 1];
    }
    if (node->name == nullptr) return nullptr;
    for (std::size_t i = 0; defaults[i] != nullptr; ++i) {
        char** entry = defaults[i];
        if (std::strcmp(entry[0], node->name) != 0) continue;
        for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
            if (std::strcmp(entry[j], name) == 0) return entry[j + 1];
        }
        return nullptr;
    }
    return nullptr;
}

}  // namespace xmltree_detail

const char* xml_attr(XmlNode* node, const char* name) {
    if (node == nullptr || node->attrs == nullptr || name == nullptr) return nullptr;
    return attr_lookup(node, name, document_of(node)->attr_defaults);
}

XmlNode* xml_path_get(XmlNode* node, std::span<const XmlPathStep> path) {
    for (const XmlPathStep& step : path) {
        if (step.name == nullptr || step.name[0] == '\0') break;
        node = xml_child(node, step.name);
        if (step.index < 0) return node;
        for (int i = 0; i < step.index && node != nullptr; ++i) node = node->next;
    }
    return node;
}

// ---------------------------------------------------------------------------
// Freeing.

void xml_free_attrs(char** attrs) {
    if (attrs == nullptr || attrs == XML_NIL) return;
    std::size_t end = 0;
    while (attrs[end] != nullptr) end += 2;
    const char* owner = attrs[end + 1];
    for (std::size_t i = 0; i < end; i += 2) {
        const auto byte = static_cast<unsigned char>(owner[i / 2]);
        if ((byte & XML_NAME_OWNED) != 0) std::free(attrs[i]);
        if ((byte & XML_TEXT_OWNED) != 0) std::free(attrs[i + 1]);
    }
}

namespace {

// Frees a null-terminated list of entries that each end with a null slot
// followed by a heap string (instructions), or the defaults entries.
void free_lists(char*** lists, bool position_strings) {
    if (lists == nil_list()) return;
    for (std::size_t i = 0; lists[i] != nullptr; ++i) {
        if (position_strings) {
            std::size_t count = 1;
            while (lists[i][count] != nullptr) ++count;
            std::free(lists[i][count + 1]);
        }
        std::free(static_cast<void*>(lists[i]));
    }
    std::free(static_cast<void*>(lists));
}

void free_document_data(XmlDocument* doc) {
    for (std::size_t i = kPredefinedSlots; doc->entities[i] != nullptr; i += 2) {
        if (!in_work_area(doc, doc->entities[i + 1])) std::free(doc->entities[i + 1]);
    }
    if (doc->entities != static_cast<DocumentBlock*>(doc)->own_entities) {
        std::free(static_cast<void*>(doc->entities));
    }
    for (std::size_t i = 0; doc->attr_defaults[i] != nullptr; ++i) {
        char** entry = doc->attr_defaults[i];
        for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
            if (entry[j + 1] != nullptr && !in_work_area(doc, entry[j + 1]))
                std::free(entry[j + 1]);
        }
    }
    free_lists(doc->attr_defaults, false);
    free_lists(doc->instructions, true);
    if (doc->buffer_len == SIZE_MAX) std::free(doc->buffer);
    if (doc->utf8_copy != nullptr) std::free(doc->utf8_copy);
}

// The strings and lists of an element (and of the document, for its root).
void free_contents(XmlDocument* doc, XmlNode* node) {
    if (node == doc) free_document_data(doc);
    xml_free_attrs(node->attrs);
    if ((node->flags & XML_TEXT_OWNED) != 0) std::free(node->text);
    if ((node->flags & XML_NAME_OWNED) != 0) std::free(node->name);
}

}  // namespace

void xml_free(XmlNode* node) {
    if (node == nullptr) return;
    XmlDocument* doc = document_of(node);
    XmlNode* const stop = node->parent;
    // Depth-first without recursion, in document order.
    for (XmlNode* at = node; at != nullptr;) {
        free_contents(doc, at);
        if (at->child != nullptr) {
            at = at->child;
            continue;
        }
        while (at != nullptr && at->ordered == nullptr)
            at = at->parent != stop ? at->parent : nullptr;
        if (at != nullptr) at = at->ordered;
    }
    if (node != doc) return;
    for (AreaBlock* block = static_cast<DocumentBlock*>(doc)->chained; block != nullptr;) {
        AreaBlock* next = block->next;
        std::free(block);
        block = next;
    }
    std::free(static_cast<DocumentBlock*>(doc));
}
