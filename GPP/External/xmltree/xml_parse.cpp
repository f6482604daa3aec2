// In-place parsing of XML text into an xmltree document.
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xml_internal.hpp"
#include "xmltree.hpp"

using namespace xmltree_detail;

namespace {

char marker_cdata[] = " ";
char marker_other[] = "*";

// Character sets for the hot scans, as tables: short names and values make
// the library's strspn family spend more on set-up than on scanning.
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

char* scan_to(char* s, const CharSet& set) {
    while (!set.member[static_cast<unsigned char>(*s)]) ++s;
    return s;
}

char* skip_over(char* s, const CharSet& set) {
    while (set.member[static_cast<unsigned char>(*s)]) ++s;
    return s;
}

bool is_space(char c) {
    return kSpaceClass.member[static_cast<unsigned char>(c)];
}

// The next '<' or the terminator: short runs by hand, long ones by the library.
char* find_markup(char* s) {
    for (int i = 0; i < 16; ++i, ++s) {
        if (*s == '<' || *s == '\0') return s;
    }
    return strchrnul(s, '<');
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

bool in_work_area(const XmlDocument* doc, const char* s) {
    return s >= doc->work_start && s <= doc->work_end;
}

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

// Writes the UTF-8 form of a character reference's value; returns its length.
// Values are those of a 32-bit long, as on the target.
std::size_t encode_utf8(long value, char* out) {
    if (value < 0x80) {
        out[0] = static_cast<char>(value);
        return 1;
    }
    const auto v = static_cast<unsigned long>(value);
    unsigned bits = 0;
    for (unsigned long d = v; d != 0; d >>= 1U) ++bits;
    const unsigned n = (bits - 2) / 5;
    out[0] = static_cast<char>((0xFFU << (7 - n)) | (v >> (6 * n)));
    for (unsigned k = n; k > 0; --k) {
        out[n - k + 1] = static_cast<char>(0x80U | ((v >> (6 * (k - 1))) & 0x3FU));
    }
    return n + 1;
}

// CR LF and lone CR become LF. Returns the new length.
std::size_t normalise_line_ends(char* s) {
    char* p = strchrnul(s, '\r');
    if (*p == '\0') return static_cast<std::size_t>(p - s);
    char* w = p;
    while (*p != '\0') {
        if (*p == '\r') {
            *w++ = '\n';
            if (*++p == '\n') ++p;
        } else {
            *w++ = *p++;
        }
    }
    *w = '\0';
    return static_cast<std::size_t>(w - s);
}

// Decodes references in place. The output grows from `base` to `w`; the text
// still to be read runs from `r` to `end`. An entity's replacement is put in
// front of the unread text, so it is read again. Once a replacement is longer
// than its reference the string moves to the heap, where room is kept between
// output and unread text so that further expansions stay linear.
struct Decoder {
    DocumentImpl* doc;
    char** table;
    char mode;
    char* base;
    char* w;
    char* r;
    char* end;
    bool heap;

    void make_room(std::size_t ref_len, std::size_t rep_len) {
        const std::size_t out_len = static_cast<std::size_t>(w - base);
        const std::size_t rest = static_cast<std::size_t>(end - (r + ref_len));
        const std::size_t live = out_len + rep_len + rest;
        const std::size_t gap = live / 2 + 64;
        auto* block = static_cast<char*>(std::malloc(live + gap + 1));
        std::memcpy(block, base, out_len);
        char* unread = block + out_len + gap;
        std::memcpy(unread + rep_len, r + ref_len, rest + 1);
        if (heap) std::free(base);
        heap = true;
        base = block;
        w = block + out_len;
        r = unread;
        end = unread + rep_len + rest;
    }

    // Puts `rep` in place of the `ref_len` characters at `r`.
    void splice(const char* rep, std::size_t ref_len) {
        const std::size_t rep_len = std::strlen(rep);
        if (rep_len <= ref_len) {
            r += ref_len - rep_len;
        } else if (!heap || static_cast<std::size_t>(r - w) < rep_len - ref_len) {
            make_room(ref_len, rep_len);
        } else {
            r -= rep_len - ref_len;
        }
        std::memcpy(r, rep, rep_len);
    }

    bool character_reference() {
        char* digits_end = nullptr;
        long value =
            r[2] == 'x' ? std::strtol(r + 3, &digits_end, 16) : std::strtol(r + 2, &digits_end, 10);
        if (value > INT32_MAX) value = INT32_MAX;
        if (value < INT32_MIN) value = INT32_MIN;
        if (value == 0 || *digits_end != ';') return false;
        w += encode_utf8(value, w);
        r = digits_end + 1;
        return true;
    }

    bool entity_reference() {
        std::size_t k = 0;
        while (table[k] != nullptr && std::strncmp(r + 1, table[k], std::strlen(table[k])) != 0) {
            k += 2;
        }
        if (table[k] == nullptr) return false;
        const char* rep = table[k + 1];
        const std::size_t cost = std::strlen(rep) + 1;
        if (doc->expansion_budget < cost) return false;
        doc->expansion_budget -= cost;
        const char* semicolon = std::strchr(r, ';');
        splice(rep, static_cast<std::size_t>(semicolon + 1 - r));
        return true;
    }

    void run() {
        const bool attribute = mode == ' ' || mode == '*';
        while (r < end) {
            const char c = *r;
            if (c == '&' && r[1] == '#') {
                if (!character_reference()) *w++ = *r++;
                continue;
            }
            if (((c == '&' && (mode == '&' || attribute)) || (c == '%' && mode == '%')) &&
                entity_reference()) {
                continue;
            }
            *w++ = attribute && is_space(c) ? ' ' : c;
            ++r;
        }
        *w = '\0';
    }
};

// Decodes `s` (see Decoder) and returns the result, `s` itself or a heap
// string; `length` receives its strlen.
char* decode(DocumentImpl* doc, char* s, char** table, char mode, std::size_t& length_out) {
    static constexpr CharSet kTextSpecial = make_set("&%\r", true);
    static constexpr CharSet kAttrSpecial = make_set("&%\t\n\v\f\r ", true);
    static constexpr CharSet kCdataSpecial = make_set("\r", true);
    const CharSet& specials = mode == 'c'                  ? kCdataSpecial
                              : mode == ' ' || mode == '*' ? kAttrSpecial
                                                           : kTextSpecial;
    char* special = scan_to(s, specials);
    if (*special == '\0') {  // the common case: nothing to change
        length_out = static_cast<std::size_t>(special - s);
        return s;
    }
    const std::size_t length = static_cast<std::size_t>(special - s) + normalise_line_ends(special);
    length_out = length;
    if (mode == 'c') return s;
    if (*special == '\n' && mode != ' ' && mode != '*') {
        special = scan_to(special, specials);  // a line end that was a CR
    }
    Decoder d{doc, table, mode, s, special, special, s + length, false};
    if (special != s + length) d.run();
    if (mode == '*') {
        // Runs of spaces shrink to one; leading spaces go, and one trailing.
        char* out = d.base;
        bool space = true;
        for (char* p = d.base; p != d.w; ++p) {
            if (*p == ' ') {
                if (!space) *out++ = ' ';
                space = true;
            } else {
                *out++ = *p;
                space = false;
            }
        }
        if (out != d.base && out[-1] == ' ') --out;
        *out = '\0';
    }
    length_out = std::strlen(d.base);
    return d.base;
}

// Whether `value`, the replacement of the entity being declared as `name`,
// can expand to a reference to `name`. Each table entry is looked into once.
struct EntityCheck {
    DocumentImpl* doc;
    const char* name;
    std::size_t name_len;
    char** table;
    unsigned char* seen;  // per table pair

    bool ok(const char* value, int depth) {
        if (depth > 1000) return false;
        for (const char* s = std::strchr(value, '&'); s != nullptr; s = std::strchr(s, '&')) {
            ++s;
            if (doc->check_budget == 0) return false;
            --doc->check_budget;
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

bool entity_ok(DocumentImpl* doc, const char* name, const char* value, char** table,
               std::size_t used) {
    auto* seen = static_cast<unsigned char*>(std::calloc(used / 2 + 1, 1));
    EntityCheck check{doc, name, std::strlen(name), table, seen};
    const bool ok = check.ok(value, 0);
    std::free(seen);
    return ok;
}

struct Parser {
    DocumentImpl* doc;
    std::size_t text_len;  // strlen(doc->cursor->text), kept to stay linear
};

// `plain`: the caller saw nothing in the run that decoding would change.
void append_text(Parser& p, char* s, std::size_t len, char mode, bool plain = false) {
    XmlNode* node = p.doc->cursor;
    if (node == nullptr || node->name == nullptr || len == 0) return;
    s[len] = '\0';
    std::size_t decoded_len = len;
    char* decoded = plain ? s : decode(p.doc, s, p.doc->entities, mode, decoded_len);
    if (node->text[0] == '\0') {
        if ((node->flags & XML_TEXT_OWNED) != 0) std::free(node->text);
        node->flags = static_cast<std::uint16_t>(node->flags & ~XML_TEXT_OWNED);
        node->text = decoded;
        p.text_len = decoded_len;
    } else {
        const std::size_t needed = p.text_len + decoded_len + 1;
        char* text = nullptr;
        if ((node->flags & XML_TEXT_OWNED) != 0) {
            text = grow_heap_text(node->text, needed);
        } else {
            text = grow_heap_text(nullptr, needed);
            std::memcpy(text, node->text, p.text_len);
        }
        std::memcpy(text + p.text_len, decoded, decoded_len + 1);
        if (decoded != s) std::free(decoded);
        node->text = text;
        p.text_len += decoded_len;
    }
    if (node->text != s) node->flags |= XML_TEXT_OWNED;
}

void open_element(Parser& p, char* name, char** attrs) {
    XmlNode* node = p.doc->cursor;
    if (node->name != nullptr) {
        XmlNode* child = new_element(p.doc, name);
        link_node(p.doc, child, node, p.text_len);
        node = child;
    } else {
        node->name = name;
    }
    node->attrs = attrs;
    p.doc->cursor = node;
    p.text_len = 0;
}

bool close_element(Parser& p, const char* name, const char* position) {
    XmlNode* node = p.doc->cursor;
    if (node == nullptr || node->name == nullptr || !same_text(name, node->name)) {
        set_error(p.doc, position, "unexpected closing tag </%s>", name);
        return false;
    }
    p.text_len = node->offset;
    p.doc->cursor = node->parent;
    return true;
}

// Makes room for one more pair in a table that ends with a null entry at
// index `used`; the predefined entity table lives inside the document at first.
char** grow_table(DocumentImpl* doc, char** table, std::size_t used) {
    if (table == doc->inline_entities) {
        auto* copy = static_cast<char**>(std::malloc((used + 3) * sizeof(char*)));
        std::memcpy(static_cast<void*>(copy), table, (used + 1) * sizeof(char*));
        return copy;
    }
    return static_cast<char**>(std::realloc(static_cast<void*>(table), (used + 3) * sizeof(char*)));
}

void processing_instruction(Parser& p, char* s, std::size_t len) {
    DocumentImpl* doc = p.doc;
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
        return;
    }
    char*** list = doc->instructions;
    std::size_t i = 0;
    while (list[i] != nullptr && std::strcmp(list[i][0], target) != 0) ++i;
    if (list[i] == nullptr) {
        if (list == reinterpret_cast<char***>(XML_NIL)) {
            list = static_cast<char***>(std::malloc(2 * sizeof(char**)));
        } else {
            list = static_cast<char***>(
                std::realloc(static_cast<void*>(list), (i + 2) * sizeof(char**)));
        }
        auto** entry = static_cast<char**>(std::malloc(3 * sizeof(char*)));
        entry[0] = target;
        entry[1] = nullptr;
        entry[2] = static_cast<char*>(std::calloc(1, 1));
        list[i] = entry;
        list[i + 1] = nullptr;
        doc->instructions = list;
    }
    char** entry = list[i];
    std::size_t j = 1;
    while (entry[j] != nullptr) ++j;
    char* positions = entry[j + 1];
    entry = static_cast<char**>(std::realloc(static_cast<void*>(entry), (j + 3) * sizeof(char*)));
    positions = static_cast<char*>(std::realloc(positions, j + 1));
    positions[j - 1] = doc->name != nullptr ? '>' : '<';
    positions[j] = '\0';
    entry[j] = s;
    entry[j + 1] = nullptr;
    entry[j + 2] = positions;
    list[i] = entry;
}

// Adds one (attribute, default, marker) triple to the defaults entry of the
// current declaration, creating the entry first.
void add_default(DocumentImpl* doc, std::size_t& slot, char* element, char* name, char* value,
                 char* marker) {
    char*** list = doc->attr_defaults;
    if (slot == SIZE_MAX) {
        std::size_t count = 0;
        while (list[count] != nullptr) ++count;
        if (list == reinterpret_cast<char***>(XML_NIL)) {
            list = static_cast<char***>(std::malloc(2 * sizeof(char**)));
        } else {
            list = static_cast<char***>(
                std::realloc(static_cast<void*>(list), (count + 2) * sizeof(char**)));
        }
        auto** entry = static_cast<char**>(std::malloc(2 * sizeof(char*)));
        entry[0] = element;
        entry[1] = nullptr;
        list[count] = entry;
        list[count + 1] = nullptr;
        doc->attr_defaults = list;
        slot = count;
    }
    char** entry = list[slot];
    std::size_t used = 1;
    while (entry[used] != nullptr) used += 3;
    entry =
        static_cast<char**>(std::realloc(static_cast<void*>(entry), (used + 4) * sizeof(char*)));
    entry[used] = name;
    entry[used + 1] = value;
    entry[used + 2] = marker;
    entry[used + 3] = nullptr;
    list[slot] = entry;
}

// One <!ATTLIST ...> declaration; `s` is just after the keyword. Returns where
// scanning goes on, or null once an error is set.
char* attlist_declaration(DocumentImpl* doc, char* declaration, char* s) {
    char* element = s + std::strspn(s, kWhitespace);
    if (*element == '\0') {
        set_error(doc, declaration, "unclosed <!ATTLIST");
        return nullptr;
    }
    s = element + std::strcspn(element, "\t\r\n >");
    if (*s == '>') return s;
    if (*s == '\0') {
        set_error(doc, declaration, "malformed <!ATTLIST");
        return nullptr;
    }
    *s++ = '\0';
    std::size_t slot = SIZE_MAX;
    for (;;) {
        s += std::strspn(s, kWhitespace);
        if (*s == '\0' || *s == '>') return s;
        char* name = s;
        s += std::strcspn(s, kWhitespace);
        if (*s == '\0') break;
        *s++ = '\0';
        s += std::strspn(s, kWhitespace);
        char* marker = std::strncmp(s, "CDATA", 5) == 0 ? marker_cdata : marker_other;
        if (std::strncmp(s, "NOTATION", 8) == 0) s += 8 + std::strspn(s + 8, kWhitespace);
        if (*s == '(') {
            s = std::strchr(s, ')');
            if (s == nullptr) break;
        } else {
            s += std::strcspn(s, kWhitespace);
        }
        s += std::strspn(s, "\t\r\n )");
        if (std::strncmp(s, "#FIXED", 6) == 0) s += 6 + std::strspn(s + 6, kWhitespace);
        char* value = nullptr;
        if (*s == '#') {
            s += std::strcspn(s, "\t\r\n >");
            if (marker == marker_cdata) continue;
        } else if (*s == '"' || *s == '\'') {
            const char quote = *s;
            value = s + 1;
            s = std::strchr(value, quote);
            if (s == nullptr) break;
            *s++ = '\0';
            std::size_t ignored = 0;
            value = decode(doc, value, doc->entities, marker[0], ignored);
        } else {
            break;
        }
        add_default(doc, slot, element, name, value, marker);
    }
    set_error(doc, declaration, "malformed <!ATTLIST");
    return nullptr;
}

// One <!ENTITY ...> declaration; `s` is just after the keyword. Returns where
// scanning goes on, or null when the subset ends here (error set or not).
char* entity_declaration(DocumentImpl* doc, char**& parameters, char* s) {
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
    char**& table = parameter ? parameters : doc->entities;
    std::size_t used = 0;
    while (table[used] != nullptr) used += 2;
    table = grow_table(doc, table, used);
    table[used + 2] = nullptr;
    std::size_t ignored = 0;
    table[used + 1] = decode(doc, value, parameters, '%', ignored);
    if (!entity_ok(doc, name, table[used + 1], table, used)) {
        if (!in_work_area(doc, table[used + 1])) std::free(table[used + 1]);
        set_error(doc, value, "circular entity declaration &%s", name);
        return nullptr;
    }
    table[used] = name;
    return close + 1;
}

bool parse_dtd(Parser& p, char* s, std::size_t len) {
    DocumentImpl* doc = p.doc;
    s[len] = '\0';
    auto** parameters = static_cast<char**>(std::calloc(1, sizeof(char*)));
    while (s != nullptr) {
        while (*s != '\0' && *s != '<' && *s != '%') ++s;
        if (*s == '\0') break;
        if (std::strncmp(s, "<!ENTITY", 8) == 0) {
            s = entity_declaration(doc, parameters, s + 8);
        } else if (std::strncmp(s, "<!ATTLIST", 9) == 0) {
            s = attlist_declaration(doc, s, s + 9);
        } else if (std::strncmp(s, "<!--", 4) == 0) {
            s = std::strstr(s + 4, "-->");
        } else if (std::strncmp(s, "<?", 2) == 0) {
            char* content = s + 2;
            s = std::strstr(content, "?>");
            if (s != nullptr) {
                processing_instruction(p, content, static_cast<std::size_t>(s - content));
                s += 2;
            }
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

// Converts UTF-16 input (told by its first byte) to UTF-8. Returns null when
// the input is not UTF-16.
char* utf16_to_utf8(const char* input, std::size_t& len) {
    const auto* in = reinterpret_cast<const unsigned char*>(input);
    bool big_endian = false;
    if (in[0] == 0xFE) {
        big_endian = true;
    } else if (in[0] != 0xFF) {
        return nullptr;
    }
    std::size_t capacity = len;
    std::size_t used = 0;
    auto* out = static_cast<char*>(std::malloc(capacity != 0 ? capacity : 1));
    auto unit = [&](std::size_t i) -> unsigned {
        return big_endian ? (unsigned{in[i]} << 8U) | in[i + 1]
                          : (unsigned{in[i + 1]} << 8U) | in[i];
    };
    for (std::size_t i = 2; i + 1 < len; i += 2) {
        unsigned long c = unit(i);
        if (c >= 0xD800 && c <= 0xDFFF && i + 3 < len) {
            i += 2;
            c = (((c & 0x3FFU) << 10U) | (unit(i) & 0x3FFU)) + 0x10000U;
        }
        if (used + 6 > capacity) {
            while (used + 6 > capacity) capacity += XML_BUFSIZE;
            out = static_cast<char*>(std::realloc(out, capacity));
        }
        used += encode_utf8(static_cast<long>(c), out + used);
    }
    len = used;
    return static_cast<char*>(std::realloc(out, used != 0 ? used : 1));
}

bool starts_tag(char c) {
    const auto u = static_cast<unsigned char>(c);
    return ((u | 0x20U) >= 'a' && (u | 0x20U) <= 'z') || c == '_' || c == ':';
}

// Looks up the declared type marker of attribute `name` in a defaults entry.
char marker_of(char** entry, const char* name) {
    if (entry == nullptr) return ' ';
    for (std::size_t j = 1; entry[j] != nullptr; j += 3) {
        if (std::strcmp(entry[j], name) == 0) return entry[j + 2][0];
    }
    return ' ';
}

char** defaults_entry(DocumentImpl* doc, const char* element) {
    for (std::size_t i = 0; doc->attr_defaults[i] != nullptr; ++i) {
        if (std::strcmp(doc->attr_defaults[i][0], element) == 0) return doc->attr_defaults[i];
    }
    return nullptr;
}

enum class Step { next, stop, failed };

// The attributes of one start tag, gathered before the list is made in one
// block of the right size.
struct AttrCollector {
    static constexpr std::size_t kLocal = 16;
    char* local_items[2 * kLocal];
    unsigned char local_owned[kLocal];
    char** items = local_items;
    unsigned char* owned = local_owned;
    std::size_t count = 0;
    std::size_t capacity = kLocal;

    AttrCollector() = default;
    AttrCollector(const AttrCollector&) = delete;
    AttrCollector& operator=(const AttrCollector&) = delete;
    ~AttrCollector() { release(); }

    std::size_t add(char* name) {
        if (count == capacity) {
            auto* more_items = static_cast<char**>(std::malloc(4 * capacity * sizeof(char*)));
            auto* more_owned = static_cast<unsigned char*>(std::malloc(2 * capacity));
            std::memcpy(static_cast<void*>(more_items), items, 2 * count * sizeof(char*));
            std::memcpy(more_owned, owned, count);
            release();
            items = more_items;
            owned = more_owned;
            capacity *= 2;
        }
        items[2 * count] = name;
        items[2 * count + 1] = kEmptyText;
        owned[count] = ' ';
        return count++;
    }

    void release() {
        if (items != local_items) {
            std::free(static_cast<void*>(items));
            std::free(owned);
            items = local_items;
            owned = local_owned;
        }
    }

    void discard() {
        for (std::size_t i = 0; i < count; ++i) {
            if ((owned[i] & XML_TEXT_OWNED) != 0) std::free(items[2 * i + 1]);
        }
        count = 0;
        release();
    }

    char** build(DocumentImpl* doc) {
        if (count == 0) return XML_NIL;
        char** list = new_attr_list(doc, count);
        std::memcpy(static_cast<void*>(list), items, 2 * count * sizeof(char*));
        std::memcpy(list[2 * count + 1], owned, count);
        count = 0;
        release();
        return list;
    }
};

// A start tag; `s` is at its name. Leaves `s` at the closing '>' (or the end).
Step start_tag(Parser& p, char*& s, char end_char) {
    DocumentImpl* doc = p.doc;
    char* name = s;
    if (doc->cursor == nullptr) {
        set_error(doc, name, "markup outside of root element");
        return Step::failed;
    }
    s = scan_to(s, kTagNameEnd);
    while (is_space(*s)) *s++ = '\0';
    AttrCollector attrs;
    char** entry = nullptr;
    if (*s != '\0' && *s != '/' && *s != '>') entry = defaults_entry(doc, name);
    while (*s != '\0' && *s != '/' && *s != '>') {
        const std::size_t index = attrs.add(s);
        s = scan_to(s, kAttrNameEnd);
        if (*s == '=' || is_space(*s)) {
            *s++ = '\0';
            s = skip_over(s, kBlanksOrEquals);
            const char quote = *s;
            if (quote == '"' || quote == '\'') {
                static constexpr CharSet kInDouble = make_set("\"&%\t\n\v\f\r ", true);
                static constexpr CharSet kInSingle = make_set("'&%\t\n\v\f\r ", true);
                const CharSet& stops = quote == '"' ? kInDouble : kInSingle;
                char* value = ++s;
                bool plain = true;  // nothing in it that decoding would change
                for (s = scan_to(s, stops); *s != quote && *s != '\0'; s = scan_to(s + 1, stops)) {
                    plain = false;
                }
                if (*s == '\0') {
                    attrs.discard();
                    set_error(doc, name, "missing %c", quote);
                    return Step::failed;
                }
                *s++ = '\0';
                char* decoded = value;
                if (!plain) {
                    std::size_t ignored = 0;
                    decoded = decode(doc, value, doc->entities,
                                     marker_of(entry, attrs.items[2 * index]), ignored);
                }
                attrs.items[2 * index + 1] = decoded;
                if (decoded != value)
                    attrs.owned[index] = static_cast<unsigned char>(XML_TEXT_OWNED);
            }
        }
        while (is_space(*s)) ++s;
    }
    if (*s == '/') {
        *s++ = '\0';
        if ((*s != '\0' && *s != '>') || (*s == '\0' && end_char != '>')) {
            attrs.discard();
            set_error(doc, name, "missing >");
            return Step::failed;
        }
        open_element(p, name, attrs.build(p.doc));
        close_element(p, name, s);
        return Step::next;
    }
    if (*s == '>' || (*s == '\0' && end_char == '>')) {
        const char closing = *s;
        *s = '\0';
        open_element(p, name, attrs.build(p.doc));
        *s = closing;
        return Step::next;
    }
    attrs.discard();
    set_error(doc, name, "missing >");
    return Step::failed;
}

// Markup that starts with "<!" or "<?"; `s` is just after the '<'.
Step declaration(Parser& p, char*& s, char end_char) {
    DocumentImpl* doc = p.doc;
    char* d = s;
    if (std::strncmp(s, "!--", 3) == 0) {
        s = std::strstr(s + 3, "--");
        if (s == nullptr || (s[2] != '>' && s[2] != '\0') || (s[2] == '\0' && end_char != '>')) {
            set_error(doc, d, "unclosed <!--");
            return Step::failed;
        }
        s += 2;
        return Step::next;
    }
    if (std::strncmp(s, "![CDATA[", 8) == 0) {
        s = std::strstr(s, "]]>");
        if (s == nullptr) {
            set_error(doc, d, "unclosed <![CDATA[");
            return Step::failed;
        }
        append_text(p, d + 8, static_cast<std::size_t>(s - d - 8), 'c');
        s += 2;
        return Step::next;
    }
    if (std::strncmp(s, "!DOCTYPE", 8) == 0) {
        char* subset = nullptr;
        s += 7;
        for (;;) {
            s += 1 + std::strcspn(s + 1, "[]>");
            if (*s == '\0') break;
            if (*s == '[' && subset == nullptr) subset = s + 1;
            if (subset == nullptr && *s == '>') break;
            if (subset != nullptr && *s == ']' && s[1 + std::strspn(s + 1, kWhitespace)] == '>')
                break;
        }
        if (*s == '\0' && end_char != '>') {
            set_error(doc, d, "unclosed <!DOCTYPE");
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
        for (;;) {
            mark = std::strchr(mark, '?');
            if (mark == nullptr || mark[1] == '>' || mark[1] == '\0') break;
            ++mark;
        }
        if (mark == nullptr || (mark[1] == '\0' && end_char != '>')) {
            set_error(doc, d, "unclosed <?");
            return Step::failed;
        }
        processing_instruction(p, d + 1, static_cast<std::size_t>(mark - d - 1));
        s = mark + 1;
        return Step::next;
    }
    set_error(doc, d, "unexpected <");
    return Step::failed;
}

}  // namespace

XmlDocument* xml_parse_string(char* buffer, std::size_t len) {
    DocumentImpl* doc = impl_of(xml_new(nullptr));
    doc->buffer = buffer;
    if (len == 0) return set_error(doc, nullptr, "root tag missing");
    char* s = buffer;
    if (char* converted = utf16_to_utf8(buffer, len); converted != nullptr) {
        doc->utf8_copy = converted;
        s = converted;
        if (len == 0) return set_error(doc, nullptr, "root tag missing");
    }
    doc->work_start = s;
    doc->work_end = s + len;
    const char end_char = s[len - 1];
    s[len - 1] = '\0';

    s = find_markup(s);
    if (*s == '\0') return set_error(doc, s, "root tag missing");

    Parser p{doc, 0};
    for (;;) {
        ++s;
        Step step = Step::next;
        if (starts_tag(*s)) {
            step = start_tag(p, s, end_char);
        } else if (*s == '/') {
            char* name = s + 1;
            s = scan_to(name, kEndTagNameEnd);
            const char closing = *s;
            if (closing == '\0' && end_char != '>') {
                set_error(doc, name, "missing >");
                return doc;
            }
            *s = '\0';
            if (!close_element(p, name, s)) return doc;
            *s = closing;
            if (is_space(closing)) s = skip_over(s, kBlanks);
        } else {
            step = declaration(p, s, end_char);
        }
        if (step == Step::failed) return doc;

        if (*s == '\0') break;
        *s++ = '\0';
        if (*s != '<') {
            if (*s == '\0') break;
            char* data = s;
            static constexpr CharSet kTextStops = make_set("<&%\r", true);
            bool plain = true;
            for (s = scan_to(s, kTextStops); *s != '<' && *s != '\0';
                 s = scan_to(s + 1, kTextStops)) {
                plain = false;
            }
            if (*s == '\0') break;
            append_text(p, data, static_cast<std::size_t>(s - data), '&', plain);
        }
    }

    if (doc->cursor == nullptr) return doc;
    if (doc->cursor->name == nullptr) return set_error(doc, s, "root tag missing");
    return set_error(doc, s, "unclosed tag <%s>", doc->cursor->name);
}

XmlDocument* xml_parse_fd(int fd) {
    if (fd < 0) return nullptr;
    struct stat st {};
    if (fstat(fd, &st) != 0) st.st_size = 0;
    const auto size = static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 0);
    auto* buffer = static_cast<char*>(std::malloc(size != 0 ? size : 1));
    const ssize_t got = size != 0 ? read(fd, buffer, size) : 0;
    XmlDocument* doc = xml_parse_string(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
    doc->buffer_len = SIZE_MAX;
    return doc;
}

const char* xml_error_text(const XmlDocument* doc) {
    return doc != nullptr ? doc->error : "";
}
