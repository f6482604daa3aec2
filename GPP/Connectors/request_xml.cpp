// Rendering a request record as the request document sent to the connector.
#include <array>
#include <cstring>
#include <string>

#include "fixed_text.hpp"
#include "xml_messages.hpp"
#include "xmltree.hpp"

namespace {

// The tree borrows every string it is given, so the texts it renders live here
// until the tree is gone. Copies are terminated even when a field of the
// record is not.
struct RequestTexts {
    std::string action;
    std::string property;
    std::string target;
    std::string single;
    std::array<std::string, RECORD_SLOT_COUNT> names;
    std::array<std::string, RECORD_SLOT_COUNT> values;

    explicit RequestTexts(const RequestRecord& r)
        : action(tx::field_view(r.action)),
          property(tx::field_view(r.property)),
          target(tx::field_view(r.target)) {
        if (r.value_mode == REQUEST_MODE_SINGLE) {
            single = tx::field_view(r.values.single);
        } else if (r.value_mode == REQUEST_MODE_LIST) {
            for (std::size_t i = 0; i < RECORD_SLOT_COUNT; ++i) {
                names[i] = tx::field_view(r.values.slots[i].name);
                values[i] = tx::field_view(r.values.slots[i].value);
            }
        }
    }
};

constexpr std::size_t kChildOffset = 1;

void add_value(XmlNode* root, const char* name, const char* text) {
    XmlNode* p = xml_add_child(root, "p", kChildOffset);
    if (p == nullptr) {
        return;
    }
    xml_set_attr(p, "name", name);
    xml_set_text(p, text);
}

}  // namespace

int generate_xml_request(const RequestRecord& record, std::span<char> out) {
    const RequestTexts texts(record);
    const XmlDocumentPtr doc(xml_new("request"));
    if (!doc) {
        return 0;
    }
    XmlNode* root = doc.get();

    if (XmlNode* action = xml_add_child(root, "action", kChildOffset)) {
        xml_set_text(action, texts.action.c_str());
        if (!texts.property.empty()) {
            xml_set_attr(action, "property", texts.property.c_str());
        }
        if (!texts.target.empty()) {
            xml_set_attr(action, "target", texts.target.c_str());
        }
    }

    if (record.value_mode == REQUEST_MODE_SINGLE) {
        add_value(root, "default", texts.single.c_str());
    } else if (record.value_mode == REQUEST_MODE_LIST) {
        for (std::size_t i = 0; i < RECORD_SLOT_COUNT; ++i) {
            if (!texts.names[i].empty()) {
                add_value(root, texts.names[i].c_str(), texts.values[i].c_str());
            }
        }
    }

    // A document cut short would be malformed: one that does not fit is not sent.
    const tx::HeapText rendered(xml_render(root));
    tx::copy_bounded(out, "");
    if (rendered) {
        const std::size_t len = std::strlen(rendered.get());
        if (len < out.size()) {
            tx::copy_bounded(out, {rendered.get(), len});
        }
    }
    return 0;
}
