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
// own copy of the predefined entity table, and the first block of the area
// from which the document's elements and attribute lists are taken. A
// message-sized tree fits in that block, so it costs one allocation; larger
// trees chain more blocks. The area goes with the document: freeing a part of
// a tree frees the strings it owns.
inline constexpr std::size_t kFirstArea = 616;
struct AreaBlock {
    AreaBlock* next;
    std::size_t size;  // bytes after this header
};
struct DocumentBlock : XmlDocument {
    char* own_entities[11];
    unsigned char* area_at;  // the next free byte of the newest block
    std::size_t area_left;   // and how many follow it
    AreaBlock* chained;      // the blocks after the first, newest first
    alignas(XmlNode) unsigned char area[kFirstArea];
};
// Small enough for the allocator's per-thread cache of recently freed blocks.
static_assert(sizeof(DocumentBlock) <= 1024);

// `size` bytes from the document's area; null when there is no memory.
void* area_alloc(XmlDocument* doc, std::size_t size);

// A fresh element of `doc` with a borrowed name, no attributes and no text,
// or null when there is no memory for it.
XmlNode* new_element(XmlDocument* doc, const char* name);

// An attribute list is one block of the document's area: the pair slots, the
// null entry, the pointer to the ownership string, then the ownership string
// itself. A list of `pairs` pairs whose slots and ownership bytes the caller
// fills, or null when there is no memory.
char** new_attrs(XmlDocument* doc, std::size_t pairs);
// A copy of `list` (XML_NIL for none) of `pairs` pairs without pair `drop`
// (none when out of range) and with `extra` pairs at the end for the caller
// to fill (their ownership bytes blank); null when there is no memory.
char** copy_attrs(XmlDocument* doc, char** list, std::size_t pairs, std::size_t drop,
                  std::size_t extra);

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
