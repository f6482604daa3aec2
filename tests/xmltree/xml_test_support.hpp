// Helpers for the xmltree tests: parsing keeps its buffer alive next to the
// document, because the tree points into it.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "xmltree.hpp"

struct Parsed {
    std::unique_ptr<std::vector<char>> buffer;
    XmlDocumentPtr doc;

    XmlNode* root() const { return doc.get(); }
    std::string error() const { return xml_error_text(doc.get()); }
};

// Parses `text` plus its terminator, the way callers hand over C strings.
inline Parsed parse_text(std::string_view text) {
    auto buffer = std::make_unique<std::vector<char>>(text.begin(), text.end());
    buffer->push_back('\0');
    XmlDocument* doc = xml_parse_string(buffer->data(), buffer->size());
    return Parsed{std::move(buffer), XmlDocumentPtr(doc)};
}

// Parses exactly the bytes of `text`: the last byte becomes the end character.
inline Parsed parse_exact(std::string_view text) {
    auto buffer = std::make_unique<std::vector<char>>(text.begin(), text.end());
    XmlDocument* doc = xml_parse_string(buffer->data(), buffer->size());
    return Parsed{std::move(buffer), XmlDocumentPtr(doc)};
}

inline std::string render(XmlNode* node) {
    XmlText text(xml_render(node));
    return std::string(text.get());
}

inline std::string error_prefix(int line) {
    return "[error near line " + std::to_string(line) + "]: ";
}
