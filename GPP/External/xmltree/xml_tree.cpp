// Building, linking, reading and freeing xmltree documents.
#include <malloc.h>

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
char* const predefined_entities[11] = {ent_lt,   ent_lt_r,   ent_gt,   ent_gt_r,
                                       ent_quot, ent_quot_r, ent_apos, ent_apos_r,
                                       ent_amp,  ent_amp_r,  nullptr};

char parent_key_storage[] = "";
const char* parent_key() {
    return parent_key_storage;
}

}  // namespace

char* XML_NIL[] = {nullptr, nil_ownership};

namespace xmltree_detail {

char kEmptyText[] = "";

char* grow_heap_text(char* text, std::size_t needed) {
    if (text != nullptr && malloc_usable_size(text) >= needed) return text;
    std::size_t want = needed;
    if (text != nullptr) {
        const std::size_t doubled = 2 * malloc_usable_size(text);
        if (doubled > want) want = doubled;
    }
    return static_cast<char*>(std::realloc(text, want));
}

XmlNode* new_element(DocumentImpl* doc, const char* name) {
    XmlNode* node = nullptr;
    if (doc->pool_used < kPoolNodes) {
        node = &doc->pool[doc->pool_used++];
        *node = XmlNode{};
    } else {
        node = static_cast<XmlNode*>(std::calloc(1, sizeof(XmlNode)));
    }
    node->name = const_cast<char*>(name);
    node->attrs = XML_NIL;
    node->text = kEmptyText;
    return node;
}

char** new_attr_list(DocumentImpl* doc, std::size_t pairs) {
    const std::size_t slots = 2 * pairs + 2;
    const std::size_t size =
        (slots * sizeof(char*) + pairs + 2 + sizeof(char*) - 1) & ~(sizeof(char*) - 1);
    char** list = nullptr;
    char mark = kListOnHeap;
    if (doc->arena_used + size <= kListArena) {
        list = reinterpret_cast<char**>(doc->list_arena + doc->arena_used);
        doc->arena_used += size;
        mark = kListInDocument;
    } else {
        list = static_cast<char**>(std::malloc(size));
    }
    auto* owner = reinterpret_cast<char*>(list + slots);
    std::memset(owner, ' ', pairs);
    owner[pairs] = '\0';
    owner[pairs + 1] = mark;
    list[2 * pairs] = nullptr;
    list[2 * pairs + 1] = owner;
    return list;
}

}  // namespace xmltree_detail

using namespace xmltree_detail;

// ---------------------------------------------------------------------------
// Link index: remembers, per parent, where the next element in document order
// goes, so that building or parsing a long run of siblings stays linear. It is
// only an accelerator: a parent without a slot is linked by walking the chains,
// and a parent gets a slot once such a walk becomes long.

namespace {

constexpr std::size_t kWalkLimit = 16;

std::size_t hash_key(const XmlNode* parent, const char* name) {
    auto h = static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(parent) >> 4U);
    h *= 0x9E3779B97F4A7C15ULL;
    if (name != parent_key()) {
        for (const char* p = name; *p != '\0'; ++p) {
            h = (h ^ static_cast<unsigned char>(*p)) * 0x100000001B3ULL;
        }
        h ^= 0x5bd1e995U;
    }
    return h ^ (h >> 29U);
}

bool same_key(const LinkSlot& slot, const XmlNode* parent, const char* name) {
    if (slot.parent != parent) return false;
    if (name == parent_key() || slot.name == parent_key()) return slot.name == name;
    return std::strcmp(slot.name, name) == 0;
}

LinkSlot* find_slot(LinkIndex& index, const XmlNode* parent, const char* name) {
    if (index.capacity == 0) return nullptr;
    const std::size_t mask = index.capacity - 1;
    for (std::size_t i = hash_key(parent, name) & mask;; i = (i + 1) & mask) {
        LinkSlot& slot = index.slots[i];
        if (slot.parent == nullptr) return nullptr;
        if (same_key(slot, parent, name)) return &slot;
    }
}

void place_slot(LinkIndex& index, const LinkSlot& entry) {
    const std::size_t mask = index.capacity - 1;
    for (std::size_t i = hash_key(entry.parent, entry.name) & mask;; i = (i + 1) & mask) {
        LinkSlot& slot = index.slots[i];
        if (slot.parent == nullptr) {
            slot = entry;
            ++index.used;
            return;
        }
        if (same_key(slot, entry.parent, entry.name)) {
            slot.a = entry.a;
            slot.b = entry.b;
            return;
        }
    }
}

void store_slot(LinkIndex& index, XmlNode* parent, const char* name, XmlNode* a, XmlNode* b) {
    if (2 * (index.used + 1) > index.capacity) {
        LinkIndex bigger{nullptr, index.capacity == 0 ? 64 : 2 * index.capacity, 0};
        bigger.slots = static_cast<LinkSlot*>(std::calloc(bigger.capacity, sizeof(LinkSlot)));
        for (std::size_t i = 0; i < index.capacity; ++i) {
            if (index.slots[i].parent != nullptr) place_slot(bigger, index.slots[i]);
        }
        std::free(index.slots);
        index = bigger;
    }
    place_slot(index, LinkSlot{parent, name, a, b});
}

// Records every child chain of `parent` in the index.
void index_parent(LinkIndex& index, XmlNode* parent) {
    XmlNode* last = parent->child;
    while (last->ordered != nullptr) last = last->ordered;
    XmlNode* last_head = parent->child;
    for (XmlNode* head = parent->child; head != nullptr; head = head->sibling) {
        last_head = head;
        XmlNode* tail = head;
        while (tail->next != nullptr) tail = tail->next;
        if (tail->name != nullptr) store_slot(index, parent, tail->name, tail, nullptr);
    }
    store_slot(index, parent, parent_key(), last, last_head);
}

bool same_name(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return a == b;
    while (*a == *b) {
        if (*a == '\0') return true;
        ++a;
        ++b;
    }
    return false;
}

// The document-order chain, by walking. Returns the number of steps taken.
std::size_t link_ordered_walk(XmlNode* node, XmlNode* parent, XmlNode* head, std::size_t offset) {
    if (offset < head->offset) {
        parent->child = node;
        node->ordered = head;
        return 0;
    }
    std::size_t steps = 0;
    XmlNode* at = head;
    while (at->ordered != nullptr && at->ordered->offset <= offset) {
        at = at->ordered;
        ++steps;
    }
    node->ordered = at->ordered;
    at->ordered = node;
    return steps;
}

// The name group and the group position, by walking.
std::size_t link_group_walk(XmlNode* node, XmlNode* head, std::size_t offset) {
    std::size_t steps = 0;
    XmlNode* previous = nullptr;
    XmlNode* group = head;
    while (group != nullptr && !same_name(group->name, node->name)) {
        previous = group;
        group = group->sibling;
        ++steps;
    }
    if (group != nullptr && group->offset <= offset) {
        XmlNode* at = group;
        while (at->next != nullptr && at->next->offset <= offset) {
            at = at->next;
            ++steps;
        }
        node->next = at->next;
        at->next = node;
        return steps;
    }
    if (group != nullptr && previous != nullptr) previous->sibling = group->sibling;
    node->next = group;

    XmlNode* before = nullptr;
    XmlNode* after = head;
    while (after != nullptr && after->offset <= offset) {
        before = after;
        after = after->sibling;
        ++steps;
    }
    node->sibling = after;
    if (before != nullptr) before->sibling = node;
    return steps;
}

}  // namespace

namespace xmltree_detail {

void reset_links(DocumentImpl* doc) {
    std::free(doc->links.slots);
    doc->links = LinkIndex{nullptr, 0, 0};
}

void link_node(DocumentImpl* doc, XmlNode* node, XmlNode* parent, std::size_t offset) {
    node->next = nullptr;
    node->sibling = nullptr;
    node->ordered = nullptr;
    node->offset = offset;
    node->parent = parent;
    XmlNode* head = parent->child;
    LinkIndex& index = doc->links;
    LinkSlot* ps = find_slot(index, parent, parent_key());
    if (head == nullptr) {
        parent->child = node;
        if (ps != nullptr) ps->a = nullptr;
        return;
    }
    if (ps != nullptr && ps->a == nullptr) {
        index_parent(index, parent);
        ps = find_slot(index, parent, parent_key());
    }
    if (ps == nullptr) {
        std::size_t steps = link_ordered_walk(node, parent, head, offset);
        steps += link_group_walk(node, head, offset);
        if (steps > kWalkLimit) index_parent(index, parent);
        return;
    }

    // Fast paths for the usual case: the new element goes after all the others.
    bool stale = false;
    if (offset >= head->offset && ps->a->offset <= offset) {
        ps->a->ordered = node;
        ps->a = node;
    } else {
        link_ordered_walk(node, parent, head, offset);
        stale = true;
    }
    LinkSlot* ns = node->name != nullptr ? find_slot(index, parent, node->name) : nullptr;
    if (ns != nullptr && ns->a->offset <= offset) {
        ns->a->next = node;
        ns->a = node;
    } else if (ns == nullptr && node->name != nullptr && ps->b->offset <= offset) {
        ps->b->sibling = node;
        ps->b = node;
        store_slot(index, parent, node->name, node, nullptr);  // may move the slots
    } else {
        link_group_walk(node, head, offset);
        stale = true;
    }
    if (stale) {
        ps = find_slot(index, parent, parent_key());
        ps->a = nullptr;
    }
}

}  // namespace xmltree_detail

// ---------------------------------------------------------------------------
// Building.

XmlDocument* xml_new(const char* name) {
    // Every field is set here; the error text only needs its terminator.
    auto* doc = static_cast<DocumentImpl*>(std::malloc(sizeof(DocumentImpl)));
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
    doc->standalone = 0;
    doc->error[0] = '\0';
    doc->links = LinkIndex{nullptr, 0, 0};
    doc->pool_used = 0;
    doc->arena_used = 0;
    std::memcpy(doc->inline_entities, predefined_entities, sizeof(predefined_entities));
    doc->entities = doc->inline_entities;
    doc->attr_defaults = reinterpret_cast<char***>(XML_NIL);
    doc->instructions = reinterpret_cast<char***>(XML_NIL);
    doc->expansion_budget = std::size_t{1} << 24U;
    doc->check_budget = std::size_t{1} << 20U;
    return doc;
}

XmlNode* xml_insert(XmlNode* node, XmlNode* parent, std::size_t offset) {
    if (node == nullptr || parent == nullptr) return node;
    link_node(document_of(parent), node, parent, offset);
    return node;
}

XmlNode* xml_add_child(XmlNode* parent, const char* name, std::size_t offset) {
    if (parent == nullptr) return nullptr;
    DocumentImpl* doc = document_of(parent);
    XmlNode* node = new_element(doc, name);
    link_node(doc, node, parent, offset);
    return node;
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
    std::size_t l = 0;
    while (node->attrs[l] != nullptr && std::strcmp(node->attrs[l], name) != 0) l += 2;
    if (node->attrs != XML_NIL) {
        // A list made in one block by the parser becomes a plain heap list
        // with a separate ownership string before it is changed.
        std::size_t end = l;
        while (node->attrs[end] != nullptr) end += 2;
        if (owner_inside(node->attrs, end)) {
            char** old = node->attrs;
            const std::size_t size = end / 2 + 1;
            auto* owner = static_cast<char*>(std::malloc(size));
            std::memcpy(owner, old[end + 1], size);
            auto* list = static_cast<char**>(std::malloc((end + 2) * sizeof(char*)));
            std::memcpy(static_cast<void*>(list), old, end * sizeof(char*));
            list[end] = nullptr;
            list[end + 1] = owner;
            if (!list_in_document(old, end)) std::free(static_cast<void*>(old));
            node->attrs = list;
        }
    }
    if (node->attrs[l] == nullptr) {
        if (value == nullptr) return node;
        char** list = nullptr;
        char* owner = nullptr;
        if (node->attrs == XML_NIL) {
            list = static_cast<char**>(std::malloc(4 * sizeof(char*)));
            owner = static_cast<char*>(std::calloc(1, 1));
        } else {
            owner = node->attrs[l + 1];
            list = static_cast<char**>(std::realloc(node->attrs, (l + 4) * sizeof(char*)));
        }
        const std::size_t pairs = l / 2;
        owner = static_cast<char*>(std::realloc(owner, pairs + 2));
        owner[pairs] = static_cast<char>(dup ? XML_NAME_OWNED : ' ');
        owner[pairs + 1] = '\0';
        list[l] = const_cast<char*>(name);
        list[l + 1] = kEmptyText;
        list[l + 2] = nullptr;
        list[l + 3] = owner;
        node->attrs = list;
    } else if (dup) {
        std::free(const_cast<char*>(name));
    }

    std::size_t end = l;
    while (node->attrs[end] != nullptr) end += 2;
    char* owner = node->attrs[end + 1];
    auto& byte = reinterpret_cast<unsigned char&>(owner[l / 2]);
    if ((byte & XML_TEXT_OWNED) != 0) std::free(node->attrs[l + 1]);
    if (dup) {
        byte = static_cast<unsigned char>(byte | XML_TEXT_OWNED);
    } else {
        byte = static_cast<unsigned char>(byte & ~XML_TEXT_OWNED);
    }

    if (value != nullptr) {
        node->attrs[l + 1] = const_cast<char*>(value);
        return node;
    }
    if ((byte & XML_NAME_OWNED) != 0) std::free(node->attrs[l]);
    // Later pairs, the terminator and the ownership pointer move up one pair.
    std::memmove(node->attrs + l, node->attrs + l + 2, (end - l) * sizeof(char*));
    node->attrs = static_cast<char**>(std::realloc(node->attrs, end * sizeof(char*)));
    std::memmove(owner + l / 2, owner + l / 2 + 1, std::strlen(owner + l / 2 + 1) + 1);
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

namespace {

const char* default_of(char*** defaults, const char* element, const char* name) {
    if (element == nullptr) return nullptr;
    for (std::size_t i = 0; defaults[i] != nullptr; ++i) {
        char** entry = defaults[i];
        if (std::strcmp(entry[0], element) != 0) continue;
        for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
            if (std::strcmp(entry[j], name) == 0) return entry[j + 1];
        }
        return nullptr;
    }
    return nullptr;
}

const char* attr_with_defaults(const XmlNode* node, const char* name, char*** defaults) {
    if (node->attrs == nullptr) return nullptr;
    for (std::size_t i = 0; node->attrs[i] != nullptr; i += 2) {
        if (std::strcmp(node->attrs[i], name) == 0) return node->attrs[i + 1];
    }
    return default_of(defaults, node->name, name);
}

}  // namespace

const char* xml_attr(XmlNode* node, const char* name) {
    if (node == nullptr || node->attrs == nullptr || name == nullptr) return nullptr;
    return attr_with_defaults(node, name, document_of(node)->attr_defaults);
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
// Rendering.

namespace {

struct RenderBuffer {
    char* data;
    std::size_t length;
    std::size_t capacity;

    void reserve_for(std::size_t extra) {
        if (length + extra <= capacity) return;
        while (length + extra > capacity) capacity += XML_BUFSIZE;
        data = static_cast<char*>(std::realloc(data, capacity));
    }
    void put(const char* text, std::size_t n) {
        std::memcpy(data + length, text, n);
        length += n;
        data[length] = '\0';
    }
    void put(const char* text) { put(text, std::strlen(text)); }
};

// Appends `n` characters of `text` (up to its terminator) with the characters
// that cannot stand for themselves escaped.
void escape_append(RenderBuffer& out, const char* text, std::size_t n, bool attribute) {
    for (std::size_t i = 0; i < n && text[i] != '\0'; ++i) {
        if (out.length + 10 > out.capacity) out.reserve_for(10);
        const char* escape = nullptr;
        switch (text[i]) {
            case '&':
                escape = "&amp;";
                break;
            case '<':
                escape = "&lt;";
                break;
            case '>':
                escape = "&gt;";
                break;
            case '\r':
                escape = "&#xD;";
                break;
            case '"':
                escape = attribute ? "&quot;" : nullptr;
                break;
            case '\n':
                escape = attribute ? "&#xA;" : nullptr;
                break;
            case '\t':
                escape = attribute ? "&#x9;" : nullptr;
                break;
            default:
                break;
        }
        if (escape != nullptr) {
            out.put(escape);
        } else {
            out.data[out.length++] = text[i];
        }
    }
    out.data[out.length] = '\0';
}

void render_attribute(RenderBuffer& out, const char* name, const char* value) {
    out.reserve_for(std::strlen(name) + 7);
    out.put(" ");
    out.put(name);
    out.put("=\"");
    escape_append(out, value, SIZE_MAX, true);
    out.reserve_for(7);
    out.put("\"");
}

void render_start_tag(RenderBuffer& out, const XmlNode* node, char*** defaults) {
    out.reserve_for(std::strlen(node->name) + 4);
    out.put("<");
    out.put(node->name);
    for (std::size_t i = 0; node->attrs[i] != nullptr; i += 2) {
        if (attr_with_defaults(node, node->attrs[i], defaults) != node->attrs[i + 1]) continue;
        render_attribute(out, node->attrs[i], node->attrs[i + 1]);
    }
    for (std::size_t i = 0; defaults[i] != nullptr; ++i) {
        char** entry = defaults[i];
        if (std::strcmp(entry[0], node->name) != 0) continue;
        for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
            const char* value = entry[j + 1];
            if (value == nullptr || attr_with_defaults(node, entry[j], defaults) != value) continue;
            render_attribute(out, entry[j], value);
        }
        break;
    }
    out.reserve_for(4);
    out.put(">");
}

void render_end_tag(RenderBuffer& out, const XmlNode* node) {
    out.reserve_for(std::strlen(node->name) + 4);
    out.put("</");
    out.put(node->name);
    out.put(">");
}

struct TextFrame {
    const char* text;
    std::size_t length;
};

// Renders `top` (already detached from its parent and followers) without
// recursing along siblings; the frame stack follows the element depth.
void render_tree(RenderBuffer& out, XmlNode* top, char*** defaults) {
    std::size_t depth = 1;
    std::size_t frames_cap = 16;
    auto* frames = static_cast<TextFrame*>(std::malloc(frames_cap * sizeof(TextFrame)));
    frames[0] = TextFrame{kEmptyText, 0};
    XmlNode* node = top;
    std::size_t start = 0;
    for (;;) {
        // Enter `node`: the parent's text before it, then its start tag.
        const TextFrame frame = frames[depth - 1];
        const std::size_t before = node->offset < frame.length ? node->offset : frame.length;
        if (before > start) escape_append(out, frame.text + start, before - start, false);
        if (node->name != nullptr) render_start_tag(out, node, defaults);
        if (node->child != nullptr) {
            if (depth == frames_cap) {
                frames_cap *= 2;
                frames =
                    static_cast<TextFrame*>(std::realloc(frames, frames_cap * sizeof(TextFrame)));
            }
            frames[depth++] = TextFrame{node->text, std::strlen(node->text)};
            node = node->child;
            start = 0;
            continue;
        }
        escape_append(out, node->text, SIZE_MAX, false);
        // Leave `node` and every ancestor whose children are all written.
        for (;;) {
            if (node->name != nullptr) render_end_tag(out, node);
            const TextFrame here = frames[depth - 1];
            const std::size_t off = node->offset < here.length ? node->offset : here.length;
            if (node->ordered != nullptr) {
                node = node->ordered;
                start = off;
                break;
            }
            escape_append(out, here.text + off, here.length - off, false);
            if (depth == 1) {
                std::free(frames);
                return;
            }
            --depth;
            node = node->parent;
        }
    }
}

void render_instructions(RenderBuffer& out, char*** instructions, char skip, bool after) {
    for (std::size_t i = 0; instructions[i] != nullptr; ++i) {
        char** entry = instructions[i];
        std::size_t count = 1;
        while (entry[count] != nullptr) ++count;
        const char* positions = entry[count + 1];
        for (std::size_t k = 1; k < count; ++k) {
            if (positions[k - 1] == skip) continue;
            const char* data = entry[k];
            out.reserve_for(std::strlen(entry[0]) + std::strlen(data) + 7);
            if (after) out.put("\n");
            out.put("<?");
            out.put(entry[0]);
            if (data[0] != '\0') out.put(" ");
            out.put(data);
            out.put("?>");
            if (!after) out.put("\n");
        }
    }
}

}  // namespace

char* xml_render(XmlNode* node) {
    RenderBuffer out{static_cast<char*>(std::malloc(XML_BUFSIZE)), 0, XML_BUFSIZE};
    out.data[0] = '\0';
    if (node == nullptr || node->name == nullptr) {
        return static_cast<char*>(std::realloc(out.data, 1));
    }
    DocumentImpl* doc = document_of(node);
    const bool is_root = node->parent == nullptr;
    if (is_root) render_instructions(out, doc->instructions, '>', false);

    XmlNode* parent = node->parent;
    XmlNode* ordered = node->ordered;
    node->parent = nullptr;
    node->ordered = nullptr;
    render_tree(out, node, doc->attr_defaults);
    node->parent = parent;
    node->ordered = ordered;

    if (is_root) render_instructions(out, doc->instructions, '<', true);
    return static_cast<char*>(std::realloc(out.data, out.length + 1));
}

// ---------------------------------------------------------------------------
// Freeing.

void xml_free_attrs(char** attrs) {
    if (attrs == nullptr || attrs == XML_NIL) return;
    std::size_t end = 0;
    while (attrs[end] != nullptr) end += 2;
    char* owner = attrs[end + 1];
    for (std::size_t i = 0; i < end; i += 2) {
        const auto byte = static_cast<unsigned char>(owner[i / 2]);
        if ((byte & XML_NAME_OWNED) != 0) std::free(attrs[i]);
        if ((byte & XML_TEXT_OWNED) != 0) std::free(attrs[i + 1]);
    }
    if (list_in_document(attrs, end)) return;
    if (!owner_inside(attrs, end)) std::free(owner);
    std::free(static_cast<void*>(attrs));
}

namespace {

bool in_work_area(const XmlDocument* doc, const char* s) {
    return doc->work_start != nullptr && s >= doc->work_start && s <= doc->work_end;
}

void free_document_data(DocumentImpl* doc) {
    for (std::size_t i = 10; doc->entities[i] != nullptr; i += 2) {
        if (!in_work_area(doc, doc->entities[i + 1])) std::free(doc->entities[i + 1]);
    }
    if (doc->entities != doc->inline_entities) std::free(doc->entities);

    if (doc->attr_defaults != reinterpret_cast<char***>(XML_NIL)) {
        for (std::size_t i = 0; doc->attr_defaults[i] != nullptr; ++i) {
            char** entry = doc->attr_defaults[i];
            for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
                if (entry[j + 1] != nullptr && !in_work_area(doc, entry[j + 1])) {
                    std::free(entry[j + 1]);
                }
            }
            std::free(entry);
        }
        std::free(static_cast<void*>(doc->attr_defaults));
    }

    if (doc->instructions != reinterpret_cast<char***>(XML_NIL)) {
        for (std::size_t i = 0; doc->instructions[i] != nullptr; ++i) {
            char** entry = doc->instructions[i];
            std::size_t count = 1;
            while (entry[count] != nullptr) ++count;
            std::free(entry[count + 1]);
            std::free(static_cast<void*>(entry));
        }
        std::free(static_cast<void*>(doc->instructions));
    }
    if (doc->buffer_len == SIZE_MAX) std::free(doc->buffer);
    std::free(doc->utf8_copy);
    reset_links(doc);
}

bool in_pool(const DocumentImpl* doc, const XmlNode* node) {
    const auto at = reinterpret_cast<std::uintptr_t>(node);
    return at >= reinterpret_cast<std::uintptr_t>(doc->pool) &&
           at < reinterpret_cast<std::uintptr_t>(doc->pool + kPoolNodes);
}

void free_one(DocumentImpl* doc, XmlNode* node) {
    if (node->parent == nullptr) {
        free_document_data(static_cast<DocumentImpl*>(static_cast<XmlDocument*>(node)));
    }
    xml_free_attrs(node->attrs);
    if ((node->flags & XML_TEXT_OWNED) != 0) std::free(node->text);
    if ((node->flags & XML_NAME_OWNED) != 0) std::free(node->name);
    if (!in_pool(doc, node)) std::free(node);
}

}  // namespace

void xml_free(XmlNode* node) {
    if (node == nullptr) return;
    // Positions remembered for the tree become invalid once part of it goes.
    DocumentImpl* doc = document_of(node);
    if (node->parent != nullptr) reset_links(doc);
    XmlNode* const stop = node->parent;
    // Depth-first without recursion: children are detached as the walk goes
    // down, so every element is freed once all of its children are.
    XmlNode* at = node;
    while (at != nullptr) {
        if (at->child != nullptr) {
            XmlNode* child = at->child;
            at->child = nullptr;
            at = child;
            continue;
        }
        XmlNode* following = at->ordered;
        XmlNode* parent = at->parent;
        free_one(doc, at);
        if (following != nullptr) {
            at = following;
        } else if (parent != stop) {
            at = parent;
        } else {
            at = nullptr;
        }
    }
}
