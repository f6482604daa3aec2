// Private parts of the xmltree module shared by its translation units.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "xmltree.hpp"

namespace xmltree_detail {

inline constexpr const char* kWhitespace = "\t\r\n ";

// The text of elements that have none; never written to or freed.
extern char kEmptyText[];

// The allocation behind every document: the public record, the document's
// own copy of the predefined entity table, and a small area from which its
// first elements and attribute lists are taken, so that a message-sized tree
// costs one allocation. Blocks of the area go with the document.
inline constexpr std::size_t kAreaSize = 640;
struct DocumentBlock : XmlDocument {
    char* own_entities[11];
    std::size_t area_used;
    alignas(XmlNode) unsigned char area[kAreaSize];
};
// Small enough for the allocator's per-thread cache of recently freed blocks.
static_assert(sizeof(DocumentBlock) <= 1024);

// A block of `size` bytes from the document's area, or from the heap; null
// when there is no memory.
void* area_alloc(XmlDocument* doc, std::size_t size);
// Whether `block` lies in the document's area.
inline bool in_area(XmlDocument* doc, const void* block) {
    const auto* area = static_cast<DocumentBlock*>(doc)->area;
    const auto* at = static_cast<const unsigned char*>(block);
    return at >= area && at < area + kAreaSize;
}
// Frees a block from area_alloc unless it lies in the area.
inline void area_free(XmlDocument* doc, void* block) {
    if (!in_area(doc, block)) std::free(block);
}

// A fresh element of `doc` with a borrowed name, no attributes and no text,
// or null when there is no memory for it.
XmlNode* new_element(XmlDocument* doc, const char* name);

// An attribute list is one block: the pair slots, the null entry, the pointer
// to the ownership string, then the ownership string itself, its terminator
// and a mark that tells a list in a document's area from one on the heap.
// A list of `pairs` pairs whose slots and ownership bytes the caller fills,
// or null when there is no memory.
char** new_attrs(XmlDocument* doc, std::size_t pairs);
// A copy of `list` (XML_NIL for none) of `pairs` pairs without pair `drop`
// (none when out of range) and with `extra` pairs at the end for the caller
// to fill (their ownership bytes blank); null when there is no memory.
char** copy_attrs(XmlDocument* doc, char** list, std::size_t pairs, std::size_t drop,
                  std::size_t extra);
// Releases the block of a list of `pairs` pairs (not the strings it owns).
void release_attrs(char** list, std::size_t pairs);

// The value of attribute `name`: the node's own, or else the default that
// `defaults` (the document's attr_defaults) declares for the node's name.
const char* attr_lookup(const XmlNode* node, const char* name, char*** defaults);

// The root of the tree that `node` belongs to: the document.
inline XmlDocument* document_of(XmlNode* node) {
    while (node->parent != nullptr) node = node->parent;
    return static_cast<XmlDocument*>(node);
}

// Whether `s` points into the parsed text (and so is never freed by itself).
inline bool in_work_area(const XmlDocument* doc, const char* s) {
    return doc->work_start != nullptr && s >= doc->work_start && s <= doc->work_end;
}

// A stack that keeps its first N entries inline and moves to the heap beyond
// them; a push reports a failed allocation instead of throwing.
template <class T, std::size_t N>
class SmallStack {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    SmallStack() = default;
    SmallStack(const SmallStack&) = delete;
    SmallStack& operator=(const SmallStack&) = delete;
    ~SmallStack() {
        if (data_ != local_) std::free(data_);
    }

    bool push(const T& item) {
        if (size_ == capacity_) {
            auto* data = static_cast<T*>(std::malloc(2 * capacity_ * sizeof(T)));
            if (data == nullptr) return false;
            std::memcpy(static_cast<void*>(data), data_, size_ * sizeof(T));
            if (data_ != local_) std::free(data_);
            data_ = data;
            capacity_ *= 2;
        }
        data_[size_++] = item;
        return true;
    }
    void pop() { --size_; }
    T& back() { return data_[size_ - 1]; }
    T& operator[](std::size_t i) { return data_[i]; }
    std::size_t size() const { return size_; }

  private:
    T local_[N];
    T* data_ = local_;
    std::size_t size_ = 0;
    std::size_t capacity_ = N;
};

}  // namespace xmltree_detail
