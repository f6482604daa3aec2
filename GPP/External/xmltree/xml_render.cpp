// Rendering xmltree documents back to XML text.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "xml_internal.hpp"
#include "xmltree.hpp"

using namespace xmltree_detail;

namespace {

// The output grows in fixed steps. Once an allocation fails nothing more is
// written, and the render gives null.
struct RenderBuffer {
    char* data;
    std::size_t length;
    std::size_t capacity;
    bool failed;

    bool reserve(std::size_t extra) {
        if (failed) return false;
        if (length + extra <= capacity) return true;
        std::size_t wanted = capacity;
        while (length + extra > wanted) wanted += XML_BUFSIZE;
        auto* grown = static_cast<char*>(std::realloc(data, wanted));
        if (grown == nullptr) {
            failed = true;
            return false;
        }
        data = grown;
        capacity = wanted;
        return true;
    }
    // Callers reserve first.
    void put(const char* text, std::size_t n) {
        std::memcpy(data + length, text, n);
        length += n;
        data[length] = '\0';
    }
    void put(const char* text) { put(text, std::strlen(text)); }
};

// The escape of a character, or null for one that stands for itself.
const char* escape_of(char c, bool attribute) {
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '\r':
            return "&#xD;";
        case '"':
            return attribute ? "&quot;" : nullptr;
        case '\n':
            return attribute ? "&#xA;" : nullptr;
        case '\t':
            return attribute ? "&#x9;" : nullptr;
        default:
            return nullptr;
    }
}

// Appends at most `n` characters of `text` (up to its terminator), escaping
// those that cannot stand for themselves.
void escape_append(RenderBuffer& out, const char* text, std::size_t n, bool attribute) {
    for (std::size_t i = 0; i < n && text[i] != '\0'; ++i) {
        if (out.length + 10 > out.capacity && !out.reserve(10)) return;
        if (const char* escape = escape_of(text[i], attribute); escape != nullptr) {
            out.put(escape);
        } else {
            out.data[out.length++] = text[i];
        }
    }
    out.data[out.length] = '\0';
}

void render_attribute(RenderBuffer& out, const char* name, const char* value) {
    if (!out.reserve(std::strlen(name) + 7)) return;
    out.put(" ");
    out.put(name);
    out.put("=\"");
    escape_append(out, value, SIZE_MAX, true);
    if (out.reserve(7)) out.put("\"");
}

void render_start_tag(RenderBuffer& out, const XmlNode* node, char*** defaults) {
    if (!out.reserve(std::strlen(node->name) + 4)) return;
    out.put("<");
    out.put(node->name);
    // A later pair of the same name is hidden by the first, as in lookups.
    for (std::size_t i = 0; node->attrs[i] != nullptr; i += 2) {
        if (attr_lookup(node, node->attrs[i], defaults) != node->attrs[i + 1]) continue;
        render_attribute(out, node->attrs[i], node->attrs[i + 1]);
    }
    for (std::size_t i = 0; defaults[i] != nullptr; ++i) {
        char** entry = defaults[i];
        if (std::strcmp(entry[0], node->name) != 0) continue;
        for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
            const char* value = entry[j + 1];
            if (value == nullptr || attr_lookup(node, entry[j], defaults) != value) continue;
            render_attribute(out, entry[j], value);
        }
        break;
    }
    if (out.reserve(4)) out.put(">");
}

void render_end_tag(RenderBuffer& out, const XmlNode* node) {
    if (!out.reserve(std::strlen(node->name) + 4)) return;
    out.put("</");
    out.put(node->name);
    out.put(">");
}

// The text of the element whose children are being written.
struct TextFrame {
    const char* text;
    std::size_t length;
};

// Renders `top` (already detached from its parent and followers) without
// recursion; the frame stack follows the element depth.
void render_tree(RenderBuffer& out, XmlNode* top, char*** defaults) {
    SmallStack<TextFrame, 32> frames;
    if (!frames.push(TextFrame{kEmptyText, 0})) out.failed = true;
    XmlNode* node = top;
    std::size_t start = 0;
    while (!out.failed) {
        // Enter `node`: the parent's text before it, then its start tag.
        const TextFrame frame = frames.back();
        const std::size_t before = node->offset < frame.length ? node->offset : frame.length;
        if (before > start) escape_append(out, frame.text + start, before - start, false);
        if (node->name != nullptr) render_start_tag(out, node, defaults);
        if (node->child != nullptr) {
            if (!frames.push(TextFrame{node->text, std::strlen(node->text)})) out.failed = true;
            node = node->child;
            start = 0;
            continue;
        }
        escape_append(out, node->text, SIZE_MAX, false);
        // Leave `node` and every ancestor whose children are all written.
        for (;;) {
            if (node->name != nullptr) render_end_tag(out, node);
            const TextFrame here = frames.back();
            const std::size_t off = node->offset < here.length ? node->offset : here.length;
            if (node->ordered != nullptr) {
                node = node->ordered;
                start = off;
                break;
            }
            escape_append(out, here.text + off, here.length - off, false);
            if (frames.size() == 1) return;
            frames.pop();
            node = node->parent;
        }
    }
}

// The instructions before the root (`after` false) or after it.
void render_instructions(RenderBuffer& out, char*** instructions, bool after) {
    const char skip = after ? '<' : '>';
    for (std::size_t i = 0; instructions[i] != nullptr; ++i) {
        char** entry = instructions[i];
        std::size_t count = 1;
        while (entry[count] != nullptr) ++count;
        const char* positions = entry[count + 1];
        for (std::size_t k = 1; k < count; ++k) {
            if (positions[k - 1] == skip) continue;
            const char* data = entry[k];
            if (!out.reserve(std::strlen(entry[0]) + std::strlen(data) + 7)) return;
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
    RenderBuffer out{static_cast<char*>(std::malloc(XML_BUFSIZE)), 0, XML_BUFSIZE, false};
    if (out.data == nullptr) return nullptr;
    out.data[0] = '\0';
    if (node != nullptr && node->name != nullptr) {
        XmlDocument* doc = document_of(node);
        const bool is_root = node->parent == nullptr;
        if (is_root) render_instructions(out, doc->instructions, false);
        XmlNode* parent = node->parent;
        XmlNode* ordered = node->ordered;
        node->parent = nullptr;
        node->ordered = nullptr;
        render_tree(out, node, doc->attr_defaults);
        node->parent = parent;
        node->ordered = ordered;
        if (is_root) render_instructions(out, doc->instructions, true);
    }
    if (out.failed) {
        std::free(out.data);
        return nullptr;
    }
    auto* fitted = static_cast<char*>(std::realloc(out.data, out.length + 1));
    return fitted != nullptr ? fitted : out.data;
}
