// Parse+free and render costs of xmltree on the messages the console
// exchanges and on large documents, with pugixml and expat parsing the same
// bytes. Every parser gets a fresh writable copy of the input per iteration.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "xmltree.hpp"

namespace {

const std::string& response_message() {
    static const std::string text =
        "<server_response client_id=\"CLI\" sub_client_id=\"123\" message_seq=\"7\">"
        "<response><action property=\"audio.speaker-volume\">get</action><v>9</v></response>"
        "</server_response>";
    return text;
}

const std::string& notify_message() {
    static const std::string text =
        "<server_notify client_id=\"CLI\" sub_client_id=\"123\">"
        "<notify event=\"call.status\" target=\"1\"><p name=\"state\">connected</p>"
        "<p name=\"number\">1234</p><p name=\"line\">1</p></notify></server_notify>";
    return text;
}

// About 1 MB of small elements with attributes, a few levels deep.
const std::string& many_elements() {
    static const std::string text = [] {
        std::string s = "<list>\n";
        for (int i = 0; s.size() < (1U << 20U); ++i) {
            s += " <entry id=\"" + std::to_string(i) + "\" kind=\"k" + std::to_string(i % 7) +
                 "\"><name>n" + std::to_string(i) + "</name><v>" + std::to_string(i * 3) +
                 "</v><flag/></entry>\n";
        }
        return s + "</list>";
    }();
    return text;
}

// About 1 MB of prose with a sprinkling of references.
const std::string& text_heavy() {
    static const std::string text = [] {
        const std::string para =
            "The speakerphone keeps three VoIP lines, USB and Bluetooth audio &amp; an external "
            "microphone; its camera, buttons and LEDs report their state as events &lt;like "
            "this&gt;. Operators read these lines on a console, one after another.\n";
        std::string s = "<doc>\n";
        while (s.size() < (1U << 20U)) s += "<p>" + para + para + para + "</p>\n";
        return s + "</doc>";
    }();
    return text;
}

const std::string& input(int which) {
    switch (which) {
        case 0:
            return response_message();
        case 1:
            return notify_message();
        case 2:
            return many_elements();
        default:
            return text_heavy();
    }
}

const char* input_name(int which) {
    static const char* names[] = {"response", "notify", "1MB_elements", "1MB_text"};
    return names[which];
}

void set_label(benchmark::State& state, int which) {
    state.SetLabel(input_name(which));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(input(which).size()));
}

void BM_xmltree_parse_free(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const std::string& text = input(which);
    std::vector<char> buffer(text.size() + 1);
    for (auto _ : state) {
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        XmlDocument* doc = xml_parse_string(buffer.data(), buffer.size());
        benchmark::DoNotOptimize(doc->child);
        if (doc->error[0] != '\0') state.SkipWithError(doc->error);
        xml_free(doc);
    }
    set_label(state, which);
}

void BM_pugixml_parse_fresh(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const std::string& text = input(which);
    std::vector<char> buffer(text.size() + 1);
    for (auto _ : state) {
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        pugi::xml_document doc;
        const pugi::xml_parse_result result =
            doc.load_buffer_inplace(buffer.data(), text.size(), pugi::parse_default);
        benchmark::DoNotOptimize(doc.first_child());
        if (!result) state.SkipWithError(result.description());
    }
    set_label(state, which);
}

void BM_pugixml_parse_reused(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const std::string& text = input(which);
    std::vector<char> buffer(text.size() + 1);
    pugi::xml_document doc;
    for (auto _ : state) {
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        const pugi::xml_parse_result result =
            doc.load_buffer_inplace(buffer.data(), text.size(), pugi::parse_default);
        benchmark::DoNotOptimize(doc.first_child());
        if (!result) state.SkipWithError(result.description());
    }
    set_label(state, which);
}

void count_start(void* data, const XML_Char* /*name*/, const XML_Char** /*attrs*/) {
    ++*static_cast<long*>(data);
}
void count_end(void* /*data*/, const XML_Char* /*name*/) {}

void BM_expat_parse(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const std::string& text = input(which);
    std::vector<char> buffer(text.size() + 1);
    for (auto _ : state) {
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        long elements = 0;
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetUserData(parser, &elements);
        XML_SetElementHandler(parser, count_start, count_end);
        if (XML_Parse(parser, buffer.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK) {
            state.SkipWithError("expat parse failed");
        }
        XML_ParserFree(parser);
        benchmark::DoNotOptimize(elements);
    }
    set_label(state, which);
}

void BM_xmltree_render(benchmark::State& state) {
    const int which = static_cast<int>(state.range(0));
    const std::string& text = input(which);
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    XmlDocumentPtr doc(xml_parse_string(buffer.data(), buffer.size()));
    for (auto _ : state) {
        char* out = xml_render(doc.get());
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    set_label(state, which);
}

// A flat document of `count` siblings under the root, in two name groups,
// with whitespace between some of them.
std::string flat_document(std::size_t count) {
    std::string text = "<list>";
    for (std::size_t i = 0; i < count; ++i)
        text += i % 3 == 0 ? "\n <item k='v'>t</item>" : "<other/>";
    return text + "\n</list>";
}

// Parse, render and free of a flat document, each timed on its own: they
// must stay linear in the number of siblings.
void BM_xmltree_flat(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const int step = static_cast<int>(state.range(1));
    const std::string text = flat_document(count);
    std::vector<char> buffer(text.size() + 1);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        if (step == 0) state.ResumeTiming();
        XmlDocument* doc = xml_parse_string(buffer.data(), buffer.size());
        if (step == 0) state.PauseTiming();
        if (doc->error[0] != '\0') state.SkipWithError(doc->error);
        if (step == 1) state.ResumeTiming();
        char* out = xml_render(doc);
        benchmark::DoNotOptimize(out);
        if (step == 1) state.PauseTiming();
        std::free(out);
        if (step == 2) state.ResumeTiming();
        xml_free(doc);
        if (step != 2) state.ResumeTiming();
    }
    static const char* steps[] = {"parse", "render", "free"};
    state.SetLabel(steps[step]);
}

void BM_xmltree_build_render_request(benchmark::State& state) {
    for (auto _ : state) {
        XmlDocument* doc = xml_new("request");
        XmlNode* action = xml_add_child(doc, "action", 0);
        xml_set_attr(action, "property", "audio.speaker-volume");
        xml_set_text(action, "set");
        XmlNode* p = xml_add_child(doc, "p", 0);
        xml_set_attr(p, "name", "default");
        xml_set_text(p, "9");
        char* out = xml_render(doc);
        benchmark::DoNotOptimize(out);
        std::free(out);
        xml_free(doc);
    }
}

}  // namespace

BENCHMARK(BM_xmltree_parse_free)->DenseRange(0, 3);
BENCHMARK(BM_pugixml_parse_fresh)->DenseRange(0, 3);
BENCHMARK(BM_pugixml_parse_reused)->DenseRange(0, 3);
BENCHMARK(BM_expat_parse)->DenseRange(0, 3);
BENCHMARK(BM_xmltree_render)->DenseRange(0, 3);
BENCHMARK(BM_xmltree_build_render_request);
BENCHMARK(BM_xmltree_flat)
    ->ArgsProduct({{10000, 100000}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
