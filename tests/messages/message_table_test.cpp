// The text-in/text-out routines of the connector library against the cases
// of message_cases.tsv.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>

#include "queue.hpp"
#include "support/fake_transport.hpp"
#include "support/table.hpp"

namespace {

using Args = std::vector<std::string>;

Args split(const std::string& text, char separator) {
    Args parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

std::string joined(const Args& parts) {
    std::string text;
    for (const std::string& part : parts) text.append(text.empty() ? "" : " ").append(part);
    return text;
}

std::string expand(std::string text) {
    static const std::regex repeat(R"(\{([^{}]*)\*(\d+)\})");
    for (std::smatch m; std::regex_search(text, m, repeat);) {
        std::string run;
        for (int i = std::stoi(m[2]); i > 0; --i) run += m[1];
        text.replace(static_cast<std::size_t>(m.position(0)), m[0].length(), run);
    }
    return std::regex_replace(text, std::regex(R"(\\n)"), "\n");
}

std::string heap(const tx::HeapText& text) {
    return text ? text.get() : "(none)";
}

template <class Record, auto parse, auto format>
std::string display(const Args& a) {
    Record record{};
    parse(a[0].c_str(), a[0].size(), &record);
    char out[512] = {};
    format(record, std::span<char>(out));
    return out;
}

// The route the CGI worker took, what it flushed and sent, and the record
// that a reader of CgiInterComm got.
std::string cgi(const Args& a) {
    static const int reader =
        (mkfifo("/tmp/CgiInterComm", 0666), open("/tmp/CgiInterComm", O_RDONLY | O_NONBLOCK));
    static const char* const routes[] = {"dropped", "notified", "notify_failed", "registration",
                                         "sent",    "resent",   "no_client"};
    fake::reset();
    fake::transport.failing_sends = std::stoi(a[0]);
    std::string result = routes[static_cast<int>(cgi_worker_step(&fake::cgi, a[1]))];
    for (const long type : fake::transport.flushed) result += " flush " + std::to_string(type);
    for (const auto& [type, text] : fake::transport.sent) {
        result += " to " + std::to_string(type) + ": " + text;
    }
    char record[512] = {};
    const ssize_t n = read(reader, record, sizeof record);
    return n <= 0 ? result : result + ": " + record + " (" + std::to_string(n) + " bytes)";
}

std::string ack(const Args& a) {
    RecordSlot slots[RECORD_SLOT_COUNT] = {};
    for (const std::string& slot : split(a[1], ';')) {
        const Args part = split(slot + ":", ':');
        tx::copy_bounded(slots[std::stoi(part[0])].name, part[1]);
        tx::copy_bounded(slots[std::stoi(part[0])].value, part[2]);
    }
    return heap(build_client_ack(a[0], a[1].empty() ? nullptr : slots));
}

std::string stack(const Args& a) {
    for (const std::string& text : split(a[0], ' ')) message_stack_push(text);
    Args popped;
    while (message_stack_count() > 0) {
        char text[64] = {};
        message_stack_pop(text, sizeof text - 1);
        popped.emplace_back(text);
    }
    return std::string("[").append(joined(popped)).append("]");
}

std::string sequence(const Args& a) {
    FdPair pair = fd_pairs[0];
    pair.sequence = std::stoi(a[0]);
    Args numbers;
    for (int i = 0; i < 4; ++i) numbers.push_back(std::to_string(pair.next_sequence(&pair)));
    return joined(numbers);
}

const std::map<std::string, std::function<std::string(const Args&)>> routines = {
    {"response", display<RequestRecord, parse_response, format_response>},
    {"notify", display<NotifyRecord, parse_notify, format_notify>},
    {"cgi", cgi},
    {"cut_notify", [](const Args& a) { return heap(cut_notify(a[0])); }},
    {"cut_response", [](const Args& a) { return heap(cut_response(a[0])); }},
    {"wrap",
     [](const Args& a) {
         const IpcMessage message = fake::message(static_cast<long>(std::stoll(a[0])), a[3]);
         return heap(wrap_client_request(message, a[1].c_str(), a[2].c_str()));
     }},
    {"message_seq", [](const Args& a) { return std::to_string(message_seq_of(a[0])); }},
    {"sub_client_id", [](const Args& a) { return std::to_string(sub_client_id_of(a[0])); }},
    {"ack", ack},
    {"marker", [](const Args& a) { return std::string(cgi_marker_pid(a[0])); }},
    {"sequence", sequence},
    {"stack", stack},
};

TEST(MessageTable, EveryCaseGivesItsResult) {
    const std::vector<tx::test::Row> cases = tx::test::read_table(MESSAGE_CASES, true);
    ASSERT_FALSE(cases.empty()) << MESSAGE_CASES;
    for (const tx::test::Row& row : cases) {
        Args fields;
        for (const std::string& field : row) fields.push_back(expand(field));
        SCOPED_TRACE(joined(Args(row.begin(), row.begin() + std::min<std::size_t>(row.size(), 2))));
        const auto routine = routines.find(fields.front());
        ASSERT_TRUE(routine != routines.end() && fields.size() >= 3);
        const Args args(fields.begin() + 1, fields.end() - 1);
        // What the routine printed on standard output comes first.
        testing::internal::CaptureStdout();
        const std::string result = routine->second(args);
        EXPECT_EQ(testing::internal::GetCapturedStdout() + result, fields.back());
    }
}

}  // namespace
