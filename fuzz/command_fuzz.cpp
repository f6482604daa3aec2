// Arbitrary command lines (up to 500 bytes, any bytes) through the matcher as
// root and as an ordinary user, with the row it picks checked against a plain
// scan from the key index position; through the handler of a row chosen by
// the first byte; and every resulting record through the request renderer.
#include <regex.h>
#include <stdlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "matcher_detail.hpp"
#include "regexparser.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t kMaxLine = 500;
constexpr std::size_t kCallerBuffer = 256;

const std::size_t kRows = tx::grammar::count_rows(command_table);

void render(const RequestRecord& record) {
    std::array<char, kCallerBuffer> out{};
    generate_xml_request(record, out);
    if (out.back() != '\0') {
        std::abort();
    }
}

// Every row's expression, compiled once.
struct CompiledTable {
    std::vector<regex_t> rows = std::vector<regex_t>(kRows);
    CompiledTable() {
        for (std::size_t row = 0; row < kRows; ++row) {
            regcomp(&rows[row], command_table[row].regex, REG_EXTENDED | REG_NEWLINE);
        }
    }
    ~CompiledTable() {
        for (regex_t& re : rows) regfree(&re);
    }
};

// The first row from `start` on whose expression accepts the line.
const command_entry* first_accepting_row(const std::string& line, std::size_t start) {
    static const CompiledTable compiled;
    for (std::size_t row = start; row < kRows; ++row) {
        if (regexec(&compiled.rows[row], line.c_str(), 0, nullptr, 0) == 0) {
            return &command_table[row];
        }
    }
    return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxLine) {
        size = kMaxLine;
    }
    const std::string line(reinterpret_cast<const char*>(data), size);
    const tx::grammar::Matcher& matcher = tx::grammar::command_matcher();

    // Kept expressions and literal prefixes pick what compiling and trying
    // each row would.
    const auto start = static_cast<std::size_t>(matcher.lookup(line));
    std::string reports;
    if (matcher.find(line, 0, reports) != first_accepting_row(line, start)) {
        std::abort();
    }
    for (uid_t uid : {uid_t{0}, uid_t{1001}}) {
        for (bool voip : {false, true}) {
            render(matcher.match(line, {uid, voip}).record);
        }
    }

    if (size > 0) {
        tx::grammar::Match match;
        const command_entry& row = command_table[data[0] % kRows];
        row.handler(std::string_view(line).substr(1), {0, (data[0] & 1) != 0}, match);
        render(match.record);
    }
    return 0;
}
