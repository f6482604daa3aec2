// In-place parsing of XML text into an xmltree document.
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fixed_text.hpp"
#include "xml_internal.hpp"
#include "xmltree.hpp"

using namespace xmltree_detail;

namespace {

char marker_cdata[] = " ";
char marker_other[] = "*";

// Character sets of the short scans over names, as tables: the library's
// strspn family spends more on set-up than on scanning a few bytes.
struct CharSet {
    bool member[256];
};

constexpr CharSet make_set(const char* chars, bool with_nul) {
    CharSet set{};
    for (const char* c = chars; *c != '\0'; ++c) set.member[static_cast<unsigned char>(*c)] = true;
    set.member[0] = with_nul;
    return set;
}

constexpr CharSet kTagNameEnd = make_set("\t\r\n />", true);
constexpr CharSet kAttrNameEnd = make_set("\t\r\n =/>", true);
constexpr CharSet kEndTagNameEnd = make_set("\t\r\n >", true);
constexpr CharSet kBlanks = make_set("\t\r\n ", false);
constexpr CharSet kBlanksOrEquals = make_set("\t\r\n =", false);
// The C library's whitespace class in the "C" locale.
constexpr CharSet kSpaceClass = make_set("\t\n\v\f\r ", false);

// The first member of `set`, which holds the terminator.
char* scan_to(char* s, const CharSet& set) {
    for (;; s += 4) {
        if (set.member[static_cast<unsigned char>(s[0])]) return s;
        if (set.member[static_cast<unsigned char>(s[1])]) return s + 1;
        if (set.member[static_cast<unsigned char>(s[2])]) return s + 2;
        if (set.member[static_cast<unsigned char>(s[3])]) return s + 3;
    }
}

char* skip_over(char* s, const CharSet& set) {
    while (set.member[static_cast<unsigned char>(*s)]) ++s;
    return s;
}

bool is_space(char c) {
    return kSpaceClass.member[static_cast<unsigned char>(c)];
}

// strcmp(a, b) == 0 for the short names of tags, without a library call.
bool same_text(const char* a, const char* b) {
    while (*a == *b) {
        if (*a == '\0') return true;
        ++a;
        ++b;
    }
    return false;
}

// One name group of an element being filled: its first and its last element.
struct Group {
    XmlNode* head;
    XmlNode* tail;
};

// The state of one parse. The parser only ever appends to the open element
// (the cursor), so its last child and the tails of its name groups are all it
// needs to link each new element in constant time.
struct Parser {
    Parser(XmlDocument* document, char end) : doc(document), end_char(end) {}

    XmlDocument* doc;
    char end_char;                 // the input's last byte, overwritten by the terminator
    std::size_t text_len = 0;      // strlen(cursor->text)
    XmlNode* last = nullptr;       // the cursor's last child
    SmallStack<Group, 16> groups;  // groups of the open elements, innermost on top
    std::size_t expansion_budget = 1U << 24U;  // bytes entity expansion may still add
    std::size_t check_budget = 1U << 20U;      // steps the circularity check may still take
};

enum class Step { next, failed };

// Formats the error text; the message format gets the line prefix first.
[[gnu::format(printf, 3, 4)]] XmlDocument* set_error(XmlDocument* doc, const char* position,
                                                     const char* format, ...) {
    int line = 1;
    if (position != nullptr && doc->work_start != nullptr && position >= doc->work_start) {
        for (const char* p = doc->work_start; p < position; ++p) {
            if (*p == '\n') ++line;
        }
    }
    char prefixed[XML_ERROR_LEN];
    std::snprintf(prefixed, sizeof prefixed, "[error near line %d]: %s", line, format);
    va_list args;
    va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(doc->error, XML_ERROR_LEN, prefixed, args);
#pragma GCC diagnostic pop
    va_end(args);
    return doc;
}

Step no_memory(const Parser& p, const char* position) {
    set_error(p.doc, position, "out of memory");
    return Step::failed;
}

// Writes the UTF-8 form of a character reference's value; returns its length.
// Values are those of a 32-bit long, as on the target.
std::size_t encode_utf8(long value, char* out) {
    if (value < 0x80) {
        out[0] = static_cast<char>(value);
        return 1;
    }
    const auto v = static_cast<unsigned long>(value);
    const auto bits = static_cast<unsigned>(std::bit_width(v));
    const unsigned n = (bits - 2) / 5;
    out[0] = static_cast<char>((0xFFU << (7 - n)) | (v >> (6 * n)));
    for (unsigned k = n; k > 0; --k) {
        out[n - k + 1] = static_cast<char>(0x80U | ((v >> (6 * (k - 1))) & 0x3FU));
    }
    return n + 1;
}

// CR LF and lone CR become LF, from `s` on.
void normalise_line_ends(char* s) {
    char* w = s;
    while (*s != '\0') {
        if (*s == '\r') {
            *w++ = '\n';
            if (*++s == '\n') ++s;
        } else {
            *w++ = *s++;
        }
    }
    *w = '\0';
}

// The size of the heap block of an element text of `length` characters that
// the parser keeps growing: doubling keeps long runs of appends linear.
std::size_t text_room(std::size_t length) {
    return std::bit_ceil(length + 1);
}

// strncmp(s, prefix, strlen(prefix)) == 0, without library calls.
bool starts_with(const char* s, const char* prefix) {
    while (*prefix != '\0' && *s == *prefix) {
        ++s;
        ++prefix;
    }
    return *prefix == '\0';
}

// The value of a replacement that is one decimal character reference and
// nothing else, as the predefined ones are ("&#60;"); 0 for any other.
long lone_reference(const char* rep) {
    if (rep[0] != '&' || rep[1] != '#') return 0;
    long value = 0;
    const char* d = rep + 2;
    for (; *d >= '0' && *d <= '9' && value < 0x110000; ++d) value = 10 * value + (*d - '0');
    return d != rep + 2 && d[0] == ';' && d[1] == '\0' ? value : 0;
}

// Decodes references. The output grows from `base` to `w`; the text still
// to be read starts at `r`. An entity's replacement is put in front of the
// unread text, so it is read again; one that is a lone character reference
// is written at once, which gives the same bytes. Until a replacement
// outgrows its reference all of this happens in place; then the string moves
// to the heap, where room is kept between output and unread text so that
// further expansions stay linear. What stays behind in the buffer counts:
// error lines are counted there.
struct Decoder {
    Parser& p;
    char** table;
    char mode;
    const char* stops;  // what ends a plain run
    char* base;
    char* w;
    char* r;
    bool heap = false;
    bool nul_inside = false;  // a negative character reference can write one
    bool failed = false;

    void make_room(std::size_t ref_len, std::size_t rep_len) {
        const auto out_len = static_cast<std::size_t>(w - base);
        const std::size_t rest = std::strlen(r + ref_len);
        const std::size_t live = out_len + rep_len + rest;
        // The first move needs little room: predefined references only shrink
        // once on the heap. The block is sized as texts that grow are.
        const std::size_t size = text_room(live + (heap ? live / 2 + 64 : 64));
        const std::size_t gap = size - 1 - live;
        auto* block = static_cast<char*>(std::malloc(size));
        if (block == nullptr) {
            failed = true;
            return;
        }
        std::memcpy(block, base, out_len);
        char* unread = block + out_len + gap;
        std::memcpy(unread + rep_len, r + ref_len, rest + 1);
        if (heap) std::free(base);
        heap = true;
        base = block;
        w = block + out_len;
        r = unread;
    }

    // Puts `rep` in place of the `ref_len` characters at `r`.
    void splice(const char* rep, std::size_t ref_len) {
        const std::size_t rep_len = std::strlen(rep);
        if (rep_len <= ref_len) {
            r += ref_len - rep_len;
        } else if (!heap || static_cast<std::size_t>(r - w) < rep_len - ref_len) {
            make_room(ref_len, rep_len);
            if (failed) return;
        } else {
            r -= rep_len - ref_len;
        }
        std::memcpy(r, rep, rep_len);
    }

    void put_character(long value) {
        const std::size_t n = encode_utf8(value, w);
        if (*w == '\0') nul_inside = true;
        w += n;
    }

    bool character_reference() {
        char* digits_end = nullptr;
        long value =
            r[2] == 'x' ? std::strtol(r + 3, &digits_end, 16) : std::strtol(r + 2, &digits_end, 10);
        if (value > INT32_MAX) value = INT32_MAX;
        if (value < INT32_MIN) value = INT32_MIN;
        if (value == 0 || *digits_end != ';') return false;
        put_character(value);
        r = digits_end + 1;
        return true;
    }

    bool entity_reference() {
        std::size_t k = 0;
        while (table[k] != nullptr && !starts_with(r + 1, table[k])) k += 2;
        if (table[k] == nullptr) return false;
        const char* rep = table[k + 1];
        const std::size_t cost = std::strlen(rep) + 1;
        if (p.expansion_budget < cost) return false;
        p.expansion_budget -= cost;
        const char* semicolon = r;  // the table name ends with one
        while (*semicolon != ';') ++semicolon;
        const auto ref_len = static_cast<std::size_t>(semicolon + 1 - r);
        char bytes[8];
        const long value = lone_reference(rep);
        if (value == 0 || (!heap && cost - 1 > ref_len) ||
            encode_utf8(value, bytes) > static_cast<std::size_t>(r - w) + ref_len) {
            splice(rep, ref_len);
            return true;
        }
        r += ref_len;
        put_character(value);
        return true;
    }

    void run() {
        const bool attribute = mode == ' ' || mode == '*';
        while (!failed) {
            const std::size_t plain = std::strcspn(r, stops);
            if (w != r) std::memmove(w, r, plain);
            w += plain;
            r += plain;
            if (*r == '\0') break;
            const char c = *r;
            if (c == '&' && r[1] == '#') {
                if (!character_reference()) *w++ = *r++;
                continue;
            }
            if (((c == '&' && mode != '%') || (c == '%' && mode == '%')) && entity_reference()) {
                continue;
            }
            *w++ = attribute && is_space(c) ? ' ' : c;
            ++r;
        }
        *w = '\0';
    }
};

// Mode '*': runs of spaces shrink to one; leading spaces go, and one trailing.
char* collapse_spaces(char* s, char* end) {
    char* out = s;
    bool space = true;
    for (char* p = s; p != end; ++p) {
        if (*p == ' ') {
            if (!space) *out++ = ' ';
            space = true;
        } else {
            *out++ = *p;
            space = false;
        }
    }
    if (out != s && out[-1] == ' ') --out;
    *out = '\0';
    return out;
}

// Decodes `s` in `mode` ('&' text, 'c' CDATA, ' ' CDATA attribute, '*' other
// attribute, '%' entity value) and returns the result: `s` itself, a heap
// string, or null when there is no memory. `length` gets its strlen.
char* decode(Parser& p, char* s, char** table, char mode, std::size_t& length) {
    const char* stops = mode == 'c'                  ? "\r"
                        : mode == '%'                ? "&%\r"
                        : mode == ' ' || mode == '*' ? "&\t\n\v\f\r "
                                                     : "&\r";
    char* special = s + std::strcspn(s, stops);
    length = static_cast<std::size_t>(special - s);
    if (*special == '\0') return s;  // the common case: nothing to change
    // Line ends are normalised in the text as written, not in replacements.
    if (char* cr = std::strchr(special, '\r'); cr != nullptr) normalise_line_ends(cr);
    if (mode == 'c') {
        length += std::strlen(special);
        return s;
    }
    Decoder d{p, table, mode, stops, s, special, special};
    d.run();
    if (d.failed) {
        if (d.heap) std::free(d.base);
        return nullptr;
    }
    char* end = mode == '*' ? collapse_spaces(d.base, d.w) : d.w;
    length = d.nul_inside ? std::strlen(d.base) : static_cast<std::size_t>(end - d.base);
    return d.base;
}

// The mode of runs known to hold nothing to decode.
constexpr char kPlain = '\0';

// Joins a run of character data to the open element's text.
bool append_text(Parser& p, char* s, std::size_t len, char mode) {
    XmlNode* node = p.doc->cursor;
    if (node == nullptr || node->name == nullptr || len == 0) return true;
    s[len] = '\0';
    std::size_t added = len;
    char* decoded = mode == kPlain ? s : decode(p, s, p.doc->entities, mode, added);
    if (decoded == nullptr) return false;
    tx::HeapText copy{decoded != s ? decoded : nullptr};  // freed unless it becomes the text
    const bool owned = (node->flags & XML_TEXT_OWNED) != 0;
    char* text = s;
    if (node->text[0] == '\0') {
        if (copy) text = static_cast<char*>(std::realloc(copy.get(), text_room(added)));
        if (text == nullptr) return false;
        static_cast<void>(copy.release());
        if (owned) std::free(node->text);
        p.text_len = 0;
    } else {
        const std::size_t room = text_room(p.text_len + added);
        if (!owned) {
            text = static_cast<char*>(std::malloc(room));
            if (text != nullptr) std::memcpy(text, node->text, p.text_len);
        } else {
            text = room > text_room(p.text_len) ? static_cast<char*>(std::realloc(node->text, room))
                                                : node->text;
        }
        if (text == nullptr) return false;
        std::memcpy(text + p.text_len, decoded, added + 1);
    }
    node->text = text;
    p.text_len += added;
    node->flags = static_cast<std::uint16_t>(text != s ? node->flags | XML_TEXT_OWNED
                                                       : node->flags & ~XML_TEXT_OWNED);
    return true;
}

// Links `node` as the cursor's last child, at the end of its name group.
bool append_child(Parser& p, XmlNode* parent, XmlNode* node) {
    Group* group = nullptr;
    for (std::size_t i = p.groups.size(); i > 0 && p.groups[i - 1].head->parent == parent; --i) {
        if (same_text(p.groups[i - 1].head->name, node->name)) {
            group = &p.groups[i - 1];
            break;
        }
    }
    node->offset = p.text_len;
    node->parent = parent;
    if (group != nullptr) {
        group->tail->next = node;
        group->tail = node;
    } else {
        const bool first = p.groups.size() == 0 || p.groups.back().head->parent != parent;
        XmlNode* last_head = first ? nullptr : p.groups.back().head;
        if (!p.groups.push(Group{node, node})) return false;
        if (last_head != nullptr) last_head->sibling = node;
    }
    if (p.last == nullptr) {
        parent->child = node;
    } else {
        p.last->ordered = node;
    }
    return true;
}

bool open_element(Parser& p, char* name, char** attrs) {
    XmlNode* node = p.doc->cursor;
    if (node->name != nullptr) {
        XmlNode* child = new_element(p.doc, name);
        if (child == nullptr) return false;
        if (!append_child(p, node, child)) return false;  // the area keeps it
        node = child;
    } else {
        node->name = name;
    }
    node->attrs = attrs;
    p.doc->cursor = node;
    p.text_len = 0;
    p.last = nullptr;
    return true;
}

bool close_element(Parser& p, const char* name, const char* position) {
    XmlNode* node = p.doc->cursor;
    if (node == nullptr || node->name == nullptr || !same_text(name, node->name)) {
        set_error(p.doc, position, "unexpected closing tag </%s>", name);
        return false;
    }
    while (p.groups.size() != 0 && p.groups.back().head->parent == node) p.groups.pop();
    p.text_len = node->offset;
    p.last = node;
    p.doc->cursor = node->parent;
    return true;
}

bool processing_instruction(Parser& p, char* s, std::size_t len);
bool parse_dtd(Parser& p, char* s, std::size_t len);

// Converts UTF-16 input (told by its first byte) to UTF-8 into `out`, which
// stays null when the input is not UTF-16. False when there is no memory.
bool utf16_to_utf8(const char* input, std::size_t& len, char*& out) {
    const auto* in = reinterpret_cast<const unsigned char*>(input);
    if (in[0] != 0xFE && in[0] != 0xFF) return true;
    const bool big_endian = in[0] == 0xFE;
    auto unit = [&](std::size_t i) -> unsigned {
        return big_endian ? (unsigned{in[i]} << 8U) | in[i + 1]
                          : (unsigned{in[i + 1]} << 8U) | in[i];
    };
    std::size_t capacity = len;
    std::size_t used = 0;
    out = static_cast<char*>(std::malloc(capacity));
    for (std::size_t i = 2; out != nullptr && i + 1 < len; i += 2) {
        unsigned long c = unit(i);
        if (c >= 0xD800 && c <= 0xDFFF && i + 3 < len) {
            i += 2;
            c = (((c & 0x3FFU) << 10U) | (unit(i) & 0x3FFU)) + 0x10000U;
        }
        if (used + 6 > capacity) {
            while (used + 6 > capacity) capacity += XML_BUFSIZE;
            char* grown = static_cast<char*>(std::realloc(out, capacity));
            if (grown == nullptr) std::free(out);
            out = grown;
            if (out == nullptr) break;
        }
        used += encode_utf8(static_cast<long>(c), out + used);
    }
    if (out == nullptr) return false;
    len = used;
    if (char* fitted = static_cast<char*>(std::realloc(out, used != 0 ? used : 1))) out = fitted;
    return true;
}

bool starts_tag(char c) {
    const auto u = static_cast<unsigned char>(c);
    return ((u | 0x20U) >= 'a' && (u | 0x20U) <= 'z') || c == '_' || c == ':';
}

// The declared type marker of attribute `name` in a defaults entry.
char marker_of(char** entry, const char* name) {
    if (entry == nullptr) return ' ';
    for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
        if (std::strcmp(entry[j], name) == 0) return entry[j + 2][0];
    }
    return ' ';
}

char** defaults_entry(XmlDocument* doc, const char* element) {
    for (std::size_t i = 0; doc->attr_defaults[i] != nullptr; ++i) {
        if (std::strcmp(doc->attr_defaults[i][0], element) == 0) return doc->attr_defaults[i];
    }
    return nullptr;
}

// One attribute of a start tag, before its list is made in one block.
struct Pair {
    char* name;
    char* value;
    unsigned char owned;
};
using Pairs = SmallStack<Pair, 16>;

// Frees the values that decoding moved to the heap.
void discard(Pairs& pairs) {
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        if (pairs[i].owned != ' ') std::free(pairs[i].value);
    }
}

// The attribute list of the pairs: XML_NIL for none, null without memory.
char** attribute_list(Parser& p, Pairs& pairs) {
    const std::size_t n = pairs.size();
    if (n == 0) return XML_NIL;
    char** list = new_attrs(p.doc, n);
    if (list == nullptr) return nullptr;
    for (std::size_t i = 0; i < n; ++i) {
        list[2 * i] = pairs[i].name;
        list[2 * i + 1] = pairs[i].value;
        list[2 * n + 1][i] = static_cast<char>(pairs[i].owned);
    }
    return list;
}

// Decodes a quoted value in the mode its declaration gives.
bool decode_value(Parser& p, Pair& pair, char** entry) {
    std::size_t ignored = 0;
    char* decoded = decode(p, pair.value, p.doc->entities, marker_of(entry, pair.name), ignored);
    if (decoded == nullptr) return false;
    if (decoded != pair.value) pair.owned = XML_TEXT_OWNED;
    pair.value = decoded;
    return true;
}

// The attributes of the start tag `tag`; `s` is after its name. Leaves `s`
// at the "/", the ">" or the end.
Step read_attributes(Parser& p, char*& s, const char* tag, Pairs& pairs) {
    char** entry = nullptr;
    if (*s != '\0' && *s != '/' && *s != '>') entry = defaults_entry(p.doc, tag);
    while (*s != '\0' && *s != '/' && *s != '>') {
        if (!pairs.push(Pair{s, kEmptyText, ' '})) return no_memory(p, s);
        s = scan_to(s, kAttrNameEnd);
        if (*s == '=' || is_space(*s)) {
            *s++ = '\0';
            s = skip_over(s, kBlanksOrEquals);
            const char quote = *s;
            if (quote == '"' || quote == '\'') {
                // Values are short and seldom hold anything to decode.
                static constexpr CharSet kInDouble = make_set("\"&\t\n\v\f\r ", true);
                static constexpr CharSet kInSingle = make_set("'&\t\n\v\f\r ", true);
                char* value = s + 1;
                s = scan_to(value, quote == '"' ? kInDouble : kInSingle);
                const bool plain = *s == quote;
                if (!plain) s = std::strchr(s, quote);
                if (s == nullptr) {
                    set_error(p.doc, tag, "missing %c", quote);
                    return Step::failed;
                }
                *s++ = '\0';
                pairs.back().value = value;
                if (!plain && !decode_value(p, pairs.back(), entry)) return no_memory(p, value);
            }
        }
        while (is_space(*s)) ++s;
    }
    return Step::next;
}

// A start tag; `s` is at its name. Leaves `s` at the closing '>' (or the end).
Step start_tag(Parser& p, char*& s) {
    char* name = s;
    if (p.doc->cursor == nullptr) {
        set_error(p.doc, name, "markup outside of root element");
        return Step::failed;
    }
    s = scan_to(s, kTagNameEnd);
    while (is_space(*s)) *s++ = '\0';
    Pairs pairs;
    if (read_attributes(p, s, name, pairs) == Step::failed) {
        discard(pairs);
        return Step::failed;
    }
    const bool empty = *s == '/';
    if (empty) *s++ = '\0';
    if (*s != '>' && (*s != '\0' || p.end_char != '>')) {
        discard(pairs);
        set_error(p.doc, name, "missing >");
        return Step::failed;
    }
    char** attrs = attribute_list(p, pairs);
    if (attrs == nullptr) {
        discard(pairs);
        return no_memory(p, name);
    }
    // The name may run up to the '>', which must stay for the main loop.
    const char closing = *s;
    *s = '\0';
    const bool opened = open_element(p, name, attrs);
    *s = closing;
    if (!opened) {
        xml_free_attrs(attrs);
        return no_memory(p, name);
    }
    if (empty) close_element(p, name, s);
    return Step::next;
}

// An end tag; `s` is at its "/".
Step end_tag(Parser& p, char*& s) {
    char* name = s + 1;
    s = scan_to(name, kEndTagNameEnd);
    const char closing = *s;
    if (closing == '\0' && p.end_char != '>') {
        set_error(p.doc, name, "missing >");
        return Step::failed;
    }
    *s = '\0';
    if (!close_element(p, name, s)) return Step::failed;
    *s = closing;
    if (is_space(closing)) s = skip_over(s, kBlanks);
    return Step::next;
}

// The end of a "<!DOCTYPE": the first ">" without an internal subset, else
// the "]" that is followed by blanks and ">". `subset` gets the subset.
char* doctype_end(char* s, char*& subset) {
    for (;;) {
        s += 1 + std::strcspn(s + 1, "[]>");
        if (*s == '\0') return s;
        if (*s == '[' && subset == nullptr) subset = s + 1;
        if (subset == nullptr && *s == '>') return s;
        if (subset != nullptr && *s == ']' && s[1 + std::strspn(s + 1, kWhitespace)] == '>')
            return s;
    }
}

// Markup that starts with "<!" or "<?"; `s` is just after the '<'.
Step declaration(Parser& p, char*& s) {
    char* d = s;
    if (std::strncmp(s, "!--", 3) == 0) {
        s = std::strstr(s + 3, "--");
        if (s == nullptr || (s[2] != '>' && (s[2] != '\0' || p.end_char != '>'))) {
            set_error(p.doc, d, "unclosed <!--");
            return Step::failed;
        }
        s += 2;
        return Step::next;
    }
    if (std::strncmp(s, "![CDATA[", 8) == 0) {
        s = std::strstr(s, "]]>");
        if (s == nullptr) {
            set_error(p.doc, d, "unclosed <![CDATA[");
            return Step::failed;
        }
        if (!append_text(p, d + 8, static_cast<std::size_t>(s - d - 8), 'c'))
            return no_memory(p, d);
        s += 2;
        return Step::next;
    }
    if (std::strncmp(s, "!DOCTYPE", 8) == 0) {
        char* subset = nullptr;
        s = doctype_end(s + 7, subset);
        if (*s == '\0' && p.end_char != '>') {
            set_error(p.doc, d, "unclosed <!DOCTYPE");
            return Step::failed;
        }
        if (subset != nullptr) {
            const bool ended = *s == '\0';
            if (!parse_dtd(p, subset, static_cast<std::size_t>(s - subset))) return Step::failed;
            if (!ended) ++s;
        }
        return Step::next;
    }
    if (*s == '?') {
        char* mark = s + 1;
        while ((mark = std::strchr(mark, '?')) != nullptr && mark[1] != '>' && mark[1] != '\0')
            ++mark;
        if (mark == nullptr || (mark[1] == '\0' && p.end_char != '>')) {
            set_error(p.doc, d, "unclosed <?");
            return Step::failed;
        }
        if (!processing_instruction(p, d + 1, static_cast<std::size_t>(mark - d - 1))) {
            return no_memory(p, d);
        }
        s = mark + 1;
        return Step::next;
    }
    set_error(p.doc, d, "unexpected <");
    return Step::failed;
}

// The '<' that ends a run of character data, or the terminator. `plain`
// tells a run with nothing to decode, which most short runs are found to be
// by table; longer ones are left to the library's scan.
char* text_end(char* s, bool& plain) {
    static constexpr CharSet kStops = make_set("<&\r", true);
    plain = false;
    for (int i = 0; i < 16; ++i, ++s) {
        if (!kStops.member[static_cast<unsigned char>(*s)]) continue;
        plain = *s == '<';
        if (plain || *s == '\0') return s;
        break;
    }
    return strchrnul(s, '<');
}

// The markup loop; `s` is at the first '<'.
void parse_markup(Parser& p, char* s) {
    for (;;) {
        ++s;
        Step step = Step::next;
        if (starts_tag(*s)) {
            step = start_tag(p, s);
        } else if (*s == '/') {
            step = end_tag(p, s);
        } else {
            step = declaration(p, s);
        }
        if (step == Step::failed) return;
        if (*s == '\0') break;
        *s++ = '\0';
        if (*s == '<') continue;
        char* data = s;
        bool plain = false;
        s = text_end(s, plain);
        if (*s == '\0') break;
        if (!append_text(p, data, static_cast<std::size_t>(s - data), plain ? kPlain : '&')) {
            no_memory(p, data);
            return;
        }
    }
    XmlNode* cursor = p.doc->cursor;
    if (cursor == nullptr) return;
    if (cursor->name == nullptr) {
        set_error(p.doc, s, "root tag missing");
    } else {
        set_error(p.doc, s, "unclosed tag <%s>", cursor->name);
    }
}

// ---------------------------------------------------------------------------
// Processing instructions and the internal DTD subset.

// Adds an entry that holds `first`, a null and `extra` more slots to the
// null-terminated list `*lists` (XML_NIL when empty) of `count` entries.
bool add_entry(char**** lists, std::size_t count, char* first, std::size_t extra) {
    char*** list = *lists == reinterpret_cast<char***>(XML_NIL) ? nullptr : *lists;
    auto*** grown =
        static_cast<char***>(std::realloc(static_cast<void*>(list), (count + 2) * sizeof(char**)));
    if (grown == nullptr) return false;
    grown[count] = nullptr;
    *lists = grown;
    auto** entry = static_cast<char**>(std::malloc((2 + extra) * sizeof(char*)));
    if (entry == nullptr) return false;
    entry[0] = first;
    entry[1] = nullptr;
    grown[count] = entry;
    grown[count + 1] = nullptr;
    return true;
}

bool processing_instruction(Parser& p, char* s, std::size_t len) {
    XmlDocument* doc = p.doc;
    s[len] = '\0';
    char* target = s;
    s += std::strcspn(s, kWhitespace);
    if (*s != '\0') {
        *s++ = '\0';
        s += std::strspn(s, kWhitespace);
    }
    if (std::strcmp(target, "xml") == 0) {
        const char* word = std::strstr(s, "standalone");
        if (word != nullptr) {
            word += 10;
            word += std::strspn(word, "\t\r\n ='\"");
            if (std::strncmp(word, "yes", 3) == 0) doc->standalone = 1;
        }
        return true;
    }
    std::size_t i = 0;
    while (doc->instructions[i] != nullptr && std::strcmp(doc->instructions[i][0], target) != 0)
        ++i;
    if (doc->instructions[i] == nullptr) {
        auto* positions = static_cast<char*>(std::calloc(1, 1));
        if (positions == nullptr || !add_entry(&doc->instructions, i, target, 1)) {
            std::free(positions);
            return false;
        }
        doc->instructions[i][2] = positions;
    }
    char** entry = doc->instructions[i];
    std::size_t j = 1;
    while (entry[j] != nullptr) ++j;
    entry = static_cast<char**>(std::realloc(static_cast<void*>(entry), (j + 3) * sizeof(char*)));
    if (entry == nullptr) return false;
    doc->instructions[i] = entry;
    auto* positions = static_cast<char*>(std::realloc(entry[j + 1], j + 1));
    if (positions == nullptr) return false;
    positions[j - 1] = doc->name != nullptr ? '>' : '<';
    positions[j] = '\0';
    entry[j] = s;
    entry[j + 1] = nullptr;
    entry[j + 2] = positions;
    return true;
}

// Adds one (attribute, default, marker) triple to the defaults entry of the
// current declaration, creating the entry first.
bool add_default(XmlDocument* doc, std::size_t& slot, char* element, char* name, char* value,
                 char* marker) {
    if (slot == SIZE_MAX) {
        std::size_t count = 0;
        while (doc->attr_defaults[count] != nullptr) ++count;
        if (!add_entry(&doc->attr_defaults, count, element, 0)) return false;
        slot = count;
    }
    char** entry = doc->attr_defaults[slot];
    std::size_t used = 1;
    while (entry[used] != nullptr) used += 3;
    entry =
        static_cast<char**>(std::realloc(static_cast<void*>(entry), (used + 4) * sizeof(char*)));
    if (entry == nullptr) return false;
    entry[used] = name;
    entry[used + 1] = value;
    entry[used + 2] = marker;
    entry[used + 3] = nullptr;
    doc->attr_defaults[slot] = entry;
    return true;
}

enum class Default { malformed, none, value, no_memory };

// The type and default of one declared attribute; `s` is at the type and is
// left after the default.
Default attribute_default(Parser& p, char*& s, char*& marker, char*& value) {
    marker = std::strncmp(s, "CDATA", 5) == 0 ? marker_cdata : marker_other;
    if (std::strncmp(s, "NOTATION", 8) == 0) s += 8 + std::strspn(s + 8, kWhitespace);
    if (*s == '(') {
        s = std::strchr(s, ')');
        if (s == nullptr) return Default::malformed;
    } else {
        s += std::strcspn(s, kWhitespace);
    }
    s += std::strspn(s, "\t\r\n )");
    if (std::strncmp(s, "#FIXED", 6) == 0) s += 6 + std::strspn(s + 6, kWhitespace);
    value = nullptr;
    if (*s == '#') {
        s += std::strcspn(s, "\t\r\n >");
        return Default::none;
    }
    if (*s != '"' && *s != '\'') return Default::malformed;
    const char quote = *s;
    value = s + 1;
    s = std::strchr(value, quote);
    if (s == nullptr) return Default::malformed;
    *s++ = '\0';
    std::size_t ignored = 0;
    value = decode(p, value, p.doc->entities, marker[0], ignored);
    return value != nullptr ? Default::value : Default::no_memory;
}

// The attribute declarations of an <!ATTLIST for `element`; `s` is after the
// element name. Returns where scanning goes on, or null once an error is set.
char* attlist_attributes(Parser& p, char* declaration, char* element, char* s) {
    std::size_t slot = SIZE_MAX;
    for (;;) {
        s += std::strspn(s, kWhitespace);
        if (*s == '\0' || *s == '>') return s;
        char* name = s;
        s += std::strcspn(s, kWhitespace);
        if (*s == '\0') break;
        *s++ = '\0';
        s += std::strspn(s, kWhitespace);
        char* marker = nullptr;
        char* value = nullptr;
        const Default kind = attribute_default(p, s, marker, value);
        if (kind == Default::malformed) break;
        if (kind == Default::none && marker == marker_cdata) continue;
        if (kind == Default::no_memory || !add_default(p.doc, slot, element, name, value, marker)) {
            if (value != nullptr && !in_work_area(p.doc, value)) std::free(value);
            no_memory(p, declaration);
            return nullptr;
        }
    }
    set_error(p.doc, declaration, "malformed <!ATTLIST");
    return nullptr;
}

// One <!ATTLIST ...> declaration; `s` is just after the keyword.
char* attlist_declaration(Parser& p, char* declaration, char* s) {
    char* element = s + std::strspn(s, kWhitespace);
    if (*element == '\0') {
        set_error(p.doc, declaration, "unclosed <!ATTLIST");
        return nullptr;
    }
    s = element + std::strcspn(element, "\t\r\n >");
    if (*s == '>') return s;
    if (*s == '\0') {
        set_error(p.doc, declaration, "malformed <!ATTLIST");
        return nullptr;
    }
    *s++ = '\0';
    return attlist_attributes(p, declaration, element, s);
}

// Whether `value`, the replacement of the entity being declared as `name`,
// can expand to a reference to `name`. Each table entry is looked into once.
struct EntityCheck {
    Parser& p;
    const char* name;
    std::size_t name_len;
    char** table;
    unsigned char* seen;  // per table pair

    bool ok(const char* value, int depth) {
        if (depth > 1000) return false;
        for (const char* s = std::strchr(value, '&'); s != nullptr; s = std::strchr(s, '&')) {
            ++s;
            if (p.check_budget == 0) return false;
            --p.check_budget;
            if (std::strncmp(s, name, name_len) == 0) return false;
            std::size_t k = 0;
            while (table[k] != nullptr && std::strncmp(s, table[k], std::strlen(table[k])) != 0) {
                k += 2;
            }
            if (table[k] == nullptr || seen[k / 2] != 0) continue;
            seen[k / 2] = 1;
            if (!ok(table[k + 1], depth + 1)) return false;
        }
        return true;
    }
};

// Stores a declared entity's value, decoded, at the end of `table` once it
// has passed the circularity check. Returns false with the error set.
bool declare_entity(Parser& p, char**& table, char**& parameters, char* name, char* value) {
    std::size_t used = 0;
    while (table[used] != nullptr) used += 2;
    // The predefined table lives in the document block until it grows.
    auto* own = static_cast<DocumentBlock*>(p.doc)->own_entities;
    const std::size_t size = (used + 3) * sizeof(char*);
    auto** grown = static_cast<char**>(
        table == own ? std::malloc(size) : std::realloc(static_cast<void*>(table), size));
    if (grown == nullptr) {
        no_memory(p, value);
        return false;
    }
    if (table == own) std::memcpy(static_cast<void*>(grown), own, (used + 1) * sizeof(char*));
    table = grown;
    table[used + 2] = nullptr;
    std::size_t ignored = 0;
    char* decoded = decode(p, value, parameters, '%', ignored);
    auto* seen = static_cast<unsigned char*>(std::calloc(used / 2 + 1, 1));
    bool ok = decoded != nullptr && seen != nullptr;
    if (!ok) no_memory(p, value);
    if (ok && !EntityCheck{p, name, std::strlen(name), table, seen}.ok(decoded, 0)) {
        set_error(p.doc, value, "circular entity declaration &%s", name);
        ok = false;
    }
    std::free(seen);
    if (!ok && decoded != nullptr && !in_work_area(p.doc, decoded)) std::free(decoded);
    if (!ok) return false;
    table[used] = name;
    table[used + 1] = decoded;
    return true;
}

// One <!ENTITY ...> declaration; `s` is just after the keyword. Returns where
// scanning goes on, or null when the subset ends here (error set or not).
char* entity_declaration(Parser& p, char**& parameters, char* s) {
    s += std::strspn(s, kWhitespace);
    const bool parameter = *s == '%';
    char* name = s + std::strspn(s, "\t\r\n %");
    s = name + std::strcspn(name, kWhitespace);
    if (*s == '\0') return nullptr;
    *s = ';';
    char* value = s + 1 + std::strspn(s + 1, kWhitespace);
    const char quote = *value;
    if (quote != '"' && quote != '\'') return std::strchr(s, '>');
    ++value;
    s[1] = '\0';  // ends the name; this is the blank or the quote before the value
    char* close = std::strchr(value, quote);
    if (close == nullptr) return nullptr;
    *close = '\0';
    char**& table = parameter ? parameters : p.doc->entities;
    return declare_entity(p, table, parameters, name, value) ? close + 1 : nullptr;
}

bool parse_dtd(Parser& p, char* s, std::size_t len) {
    XmlDocument* doc = p.doc;
    s[len] = '\0';
    auto** parameters = static_cast<char**>(std::calloc(1, sizeof(char*)));
    if (parameters == nullptr) {
        no_memory(p, s);
        return false;
    }
    while (s != nullptr) {
        s += std::strcspn(s, "<%");
        if (*s == '\0') break;
        if (std::strncmp(s, "<!ENTITY", 8) == 0) {
            s = entity_declaration(p, parameters, s + 8);
        } else if (std::strncmp(s, "<!ATTLIST", 9) == 0) {
            s = attlist_declaration(p, s, s + 9);
        } else if (std::strncmp(s, "<!--", 4) == 0) {
            s = std::strstr(s + 4, "-->");
        } else if (std::strncmp(s, "<?", 2) == 0) {
            char* content = s + 2;
            s = std::strstr(content, "?>");
            if (s != nullptr &&
                !processing_instruction(p, content, static_cast<std::size_t>(s - content))) {
                no_memory(p, content);
                s = nullptr;
            }
            if (s != nullptr) s += 2;
        } else if (*s == '<') {
            s = std::strchr(s, '>');
        } else if (doc->standalone == 0) {
            break;
        } else {
            ++s;
        }
    }
    for (std::size_t i = 0; parameters[i] != nullptr; i += 2) {
        if (!in_work_area(doc, parameters[i + 1])) std::free(parameters[i + 1]);
    }
    std::free(static_cast<void*>(parameters));
    return doc->error[0] == '\0';
}

}  // namespace

XmlDocument* xml_parse_string(char* buffer, std::size_t len) {
    XmlDocument* doc = xml_new(nullptr);
    if (doc == nullptr) return nullptr;
    doc->buffer = buffer;
    if (len == 0) return set_error(doc, nullptr, "root tag missing");
    if (!utf16_to_utf8(buffer, len, doc->utf8_copy))
        return set_error(doc, nullptr, "out of memory");
    char* s = doc->utf8_copy != nullptr ? doc->utf8_copy : buffer;
    if (len == 0) return set_error(doc, nullptr, "root tag missing");
    doc->work_start = s;
    doc->work_end = s + len;
    Parser p(doc, s[len - 1]);
    s[len - 1] = '\0';
    s = strchrnul(s, '<');
    if (*s == '\0') return set_error(doc, s, "root tag missing");
    parse_markup(p, s);
    return doc;
}

XmlDocument* xml_parse_fd(int fd) {
    if (fd < 0) return nullptr;
    struct stat st {};
    if (fstat(fd, &st) != 0) st.st_size = 0;
    const auto size = static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 0);
    tx::HeapText buffer{static_cast<char*>(std::malloc(size != 0 ? size : 1))};
    if (!buffer) return nullptr;
    const ssize_t got = size != 0 ? read(fd, buffer.get(), size) : 0;
    XmlDocument* doc = xml_parse_string(buffer.get(), got > 0 ? static_cast<std::size_t>(got) : 0);
    if (doc == nullptr) return nullptr;
    static_cast<void>(buffer.release());  // the document's now
    doc->buffer_len = SIZE_MAX;
    return doc;
}

const char* xml_error_text(const XmlDocument* doc) {
    return doc != nullptr ? doc->error : "";
}
