// Private parts of the xmltree module shared by its translation units.
#pragma once

#include <cstddef>

#include "xmltree.hpp"

namespace xmltree_detail {

inline constexpr const char* kWhitespace = "\t\r\n ";

// One slot of the per-document link index. A slot either describes a parent
// (name == parent_key(): `a` is the last child in document order, `b` the last
// group head, `a` null once the slot went stale) or one name group under a
// parent (`a` is the group's last element).
struct LinkSlot {
    XmlNode* parent;
    const char* name;
    XmlNode* a;
    XmlNode* b;
};

struct LinkIndex {
    LinkSlot* slots;
    std::size_t capacity;  // power of two, 0 when absent
    std::size_t used;
};

// The allocation behind every XmlDocument: the public record followed by
// state only this module sees. Each document carries its own copy of the
// predefined entity table inline until a declaration makes it grow.
inline constexpr std::size_t kPoolNodes = 4;
inline constexpr std::size_t kListArena = 256;

struct DocumentImpl : XmlDocument {
    char* inline_entities[11];
    // The first elements of a document live in its own block: a message-sized
    // tree then costs a single allocation. Such nodes are released with it.
    XmlNode pool[kPoolNodes];
    std::size_t pool_used;
    // Likewise the first attribute lists (see new_attr_list).
    alignas(char*) unsigned char list_arena[kListArena];
    std::size_t arena_used;
    LinkIndex links;
    std::size_t expansion_budget;  // bytes that entity expansion may still add
    std::size_t check_budget;      // steps the circularity check may still take
};

// Small enough for the allocator's per-thread cache of recently freed blocks.
static_assert(sizeof(DocumentImpl) <= 1024);

inline DocumentImpl* impl_of(XmlDocument* doc) {
    return static_cast<DocumentImpl*>(doc);
}

// The document a node belongs to (every parentless node heads a document).
inline DocumentImpl* document_of(XmlNode* node) {
    while (node->parent != nullptr) node = node->parent;
    return static_cast<DocumentImpl*>(static_cast<XmlDocument*>(node));
}

// Links `node` under `parent` (see xml_insert) with the document known.
void link_node(DocumentImpl* doc, XmlNode* node, XmlNode* parent, std::size_t offset);
// A fresh, zeroed element of `doc` with borrowed name and no text or attributes.
XmlNode* new_element(DocumentImpl* doc, const char* name);

// An attribute list of `pairs` pairs whose ownership string (all blanks) is
// kept in the same block, right behind the list's last slot. A mark byte after
// the string's terminator tells whether the block lies in the document's own
// arena (never freed by itself) or on the heap.
char** new_attr_list(DocumentImpl* doc, std::size_t pairs);
inline constexpr char kListInDocument = 'd';
inline constexpr char kListOnHeap = 'h';

// Whether `list`, ending with its null entry at `end`, carries its ownership
// string in its own block.
inline bool owner_inside(char** list, std::size_t end) {
    return list[end + 1] == reinterpret_cast<char*>(list + end + 2);
}
inline bool list_in_document(char** list, std::size_t end) {
    return owner_inside(list, end) && list[end + 1][end / 2 + 1] == kListInDocument;
}
// Forgets every remembered link position of the document.
void reset_links(DocumentImpl* doc);

// Growing heap strings keep spare room behind their end so that repeated
// appends stay linear; the room is whatever the allocator reports.
char* grow_heap_text(char* text, std::size_t needed);

extern char kEmptyText[];

}  // namespace xmltree_detail
