// xmltree: a small non-validating XML tree library.
//
// Parsing works in place: the tree keeps pointers into the caller's buffer,
// which must outlive the document. Trees built in code borrow the strings they
// are given unless the node's XML_DUP flag hands them over. Rendered texts are
// plain heap strings (tx::HeapText owns them).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

inline constexpr std::uint16_t XML_NAME_OWNED = 0x80;  // name (or attribute name) is heap-owned
inline constexpr std::uint16_t XML_TEXT_OWNED = 0x40;  // text (or attribute value) is heap-owned
inline constexpr std::uint16_t XML_DUP = 0x20;         // next xml_set_attr hands over its strings
inline constexpr std::size_t XML_BUFSIZE = 1024;
inline constexpr std::size_t XML_ERROR_LEN = 128;

// The shared empty attribute list: one null entry. Never freed or resized.
extern char* XML_NIL[];

struct XmlNode {
    char* name;           // null on a fresh document root until its start tag is read
    char** attrs;         // name, value, ..., null, ownership string
    char* text;           // never null; child elements are cut out of it
    std::size_t offset;   // length of the parent's text when this element started
    XmlNode* next;        // next element of the same name under the same parent
    XmlNode* sibling;     // head of the next same-name group (set on group heads only)
    XmlNode* ordered;     // next element under the same parent in document order
    XmlNode* child;       // first child (head of the first group)
    XmlNode* parent;      // null for the root
    std::uint16_t flags;  // XML_NAME_OWNED | XML_TEXT_OWNED | XML_DUP
};

// A whole document. It begins with its root element, so a document pointer
// converts to the root node's pointer (and a parentless node is a document).
struct XmlDocument : XmlNode {
    XmlNode* cursor;            // insertion point while parsing; null once the root closed
    char* buffer;               // the parsed text
    std::size_t buffer_len;     // 0: caller owns buffer; all ones: the document does
    char* utf8_copy;            // UTF-8 conversion of a UTF-16 input, or null
    char* work_start;           // bounds of the parsed text: strings inside are never
    char* work_end;             //   freed one by one
    char** entities;            // name; replacement; ...; null
    char*** attr_defaults;      // per ATTLIST: element, (attr, default, marker)..., null
    char*** instructions;       // per target: target, data..., null, position string
    std::uint16_t standalone;   // 1 after standalone="yes"
    char error[XML_ERROR_LEN];  // "" when the parse succeeded
};

// One step of xml_path_get: the index-th element named `name`.
struct XmlPathStep {
    const char* name;
    int index;
};

// Parsing. The last byte of the buffer is replaced by a terminator and kept as
// the end character: pass strlen + 1, or a text that ends with '>'. Null when
// there is no memory for the document; a later allocation that fails ends the
// parse with the error "out of memory".
XmlDocument* xml_parse_string(char* buffer, std::size_t len);
XmlDocument* xml_parse_fd(int fd);
const char* xml_error_text(const XmlDocument* doc);

// Reading.
XmlNode* xml_child(XmlNode* node, const char* name);
const char* xml_attr(XmlNode* node, const char* name);
XmlNode* xml_path_get(XmlNode* node, std::span<const XmlPathStep> path);

// Building. Names, texts and values are borrowed, not copied. When memory
// runs out, xml_new, xml_add_child and xml_set_attr give null; xml_set_attr
// then frees the strings handed over and leaves the list as it was.
XmlDocument* xml_new(const char* name);
XmlNode* xml_add_child(XmlNode* parent, const char* name, std::size_t offset);
XmlNode* xml_insert(XmlNode* node, XmlNode* parent, std::size_t offset);
XmlNode* xml_set_text(XmlNode* node, const char* text);
XmlNode* xml_set_attr(XmlNode* node, const char* name, const char* value);

// Rendering: a new heap string that the caller releases with free(), or null
// when there is no memory.
char* xml_render(XmlNode* node);

// Freeing: what the node, its subtree and its later siblings own; freeing the
// root frees the document with all its elements.
void xml_free(XmlNode* node);
void xml_free_attrs(char** attrs);

// The RAII owner of a document.
struct XmlDocumentDeleter {
    void operator()(XmlDocument* doc) const noexcept { xml_free(doc); }
};
using XmlDocumentPtr = std::unique_ptr<XmlDocument, XmlDocumentDeleter>;
