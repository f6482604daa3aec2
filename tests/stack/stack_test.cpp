// The whole stack in the sandbox: cli -> cliconn -> coresim and back, and a
// CGI client on cgiconn's queues with the notifications on /tmp/CgiInterComm.
// Each session of sessions.txt runs on a fresh stack, step by step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>

#include "process.hpp"
#include "queue.hpp"

namespace {

using tx::test::Process;
using tx::test::wait_until;

enum Column { kActor, kStep, kText };

class Stack : public testing::TestWithParam<tx::test::NamedCase> {
  protected:
    void TearDown() override { EXPECT_EQ(tx::test::sanitizer_reports(), ""); }
};

// Starts a program of the build with its arguments separated by "|"; its
// output goes to /tmp/<program><name>.
std::unique_ptr<Process> start(const std::string& program, const std::string& args,
                               const std::string& name = "", std::vector<std::string> env = {}) {
    auto argv = tx::test::target(tx::test::bin(program));
    for (const std::string& arg : tx::test::split(args, '|')) argv.push_back(arg);
    return std::make_unique<Process>(argv, "/tmp/" + program + name, env, true);
}

// Whether a program of the stack has printed the text on either output.
bool said(const std::string& program, const std::string& text) {
    const std::string log = "/tmp/" + program;
    return (tx::test::read_file(log) + tx::test::read_file(log + ".err")).find(text) !=
           std::string::npos;
}

// The queue on which a connector hears its clients.
const char* client_queue(const std::string& connector) {
    return connector == "cliconn" ? "/tmp/cli_out_token" : "/tmp/cgi_out_token";
}

// Starts coresim or a connector and waits until it serves.
std::unique_ptr<Process> launch(const std::string& program) {
    std::remove(("/tmp/" + program).c_str());  // no "ready" of an earlier run
    auto process = start(program, program == "coresim" ? "-v" : "");
    EXPECT_TRUE(wait_until([&] {
        return program == "coresim" ? said(program, "coresim: ready")
                                    : tx::test::queue_of(client_queue(program), false) >= 0;
    }));
    return process;
}

TEST_P(Stack, Session) {
    ASSERT_EQ(getpid(), 1) << "runs only as the first process of tools/sandbox";
    mkfifo("/tmp/CgiInterComm", 0666);
    const int intercomm = open("/tmp/CgiInterComm", O_RDONLY | O_NONBLOCK);
    // The CGI connector registers with the core when it starts, so the core
    // comes first.
    std::map<std::string, std::unique_ptr<Process>> programs;
    for (const char* program : {"coresim", "cliconn", "cgiconn"})
        programs[program] = launch(program);
    ASSERT_TRUE(wait_until([] { return said("coresim", "client_register_notify"); }));
    std::map<std::string, std::unique_ptr<Process>> clients;
    std::vector<std::pair<std::string, std::string>> lacks;
    for (tx::test::Row row : GetParam().rows) {
        row.resize(kText + 1);
        const std::string& actor = row[kActor];
        const std::string& step = row[kStep];
        const std::string& text = row[kText];
        SCOPED_TRACE(actor + " " + step + " " + text);
        if (step == "start") {
            clients[actor] = start("cli", text, "-" + actor, {"HOME=/tmp", "LD_PRELOAD=" PRELOAD});
        } else if (step == "type") {
            clients.at(actor)->write(text + "\n");
        } else if (step == "sees") {
            EXPECT_TRUE(wait_until([&] {
                return clients.at(actor)->output().find(text) != std::string::npos;
            })) << clients.at(actor)->output();
        } else if (step == "lacks") {
            lacks.emplace_back(actor, text);
        } else if (step == "signal") {
            programs.at(actor)->signal(text == "PIPE"   ? SIGPIPE
                                       : text == "TERM" ? SIGTERM
                                                        : SIGUSR2);
        } else if (step == "launch") {
            programs[actor] = launch(actor);
        } else if (step == "says") {
            EXPECT_TRUE(wait_until([&] { return said(actor, text); }));
        } else if (step == "loses-queue") {
            msgctl(tx::test::queue_of(client_queue(actor), false), IPC_RMID, nullptr);
        } else if (step == "ends") {
            EXPECT_EQ(programs.at(actor)->wait(), std::stoi(text));
        } else if (step == "send") {
            EXPECT_TRUE(tx::test::send_text(tx::test::queue_of("/tmp/cgi_out_token", false),
                                            std::stol(actor), text));
        } else if (step == "gets") {
            const int from_cgi = tx::test::queue_of("/tmp/cgi_in_token", false);
            tx::test::QueueRecord reply;
            EXPECT_TRUE(wait_until([&] {
                return msgrcv(from_cgi, &reply, tx::test::kQueuePayload, std::stol(actor),
                              IPC_NOWAIT) >= 0;
            }));
            EXPECT_NE(std::string_view(reply.text).find(text), std::string::npos) << reply.text;
        } else if (step == "intercomm") {
            // One 256-byte record, NUL-padded. Once the connector has closed
            // its end after a record, poll would report a hang-up at once.
            char record[256] = {};
            ASSERT_TRUE(wait_until([&] { return read(intercomm, record, sizeof record) == 256; }));
            EXPECT_EQ(std::string(record, sizeof record),
                      text + std::string(256 - text.size(), '\0'));
        } else {
            FAIL() << "unknown step";
        }
    }
    // Replies come back in the order the core answered: once a last request
    // of the client has its answer, anything routed to it before has come.
    for (const auto& [actor, text] : lacks) {
        Process& client = *clients.at(actor);
        client.write("get base-ver\n");
        EXPECT_TRUE(
            wait_until([&] { return client.output().find("val base-ver") != std::string::npos; }));
        EXPECT_EQ(client.output().find(text), std::string::npos) << actor << " got " << text;
    }
    close(intercomm);
}

INSTANTIATE_TEST_SUITE_P(Table, Stack, testing::ValuesIn(tx::test::read_named_cases(SESSIONS)),
                         [](const auto& info) { return info.param.name; });

}  // namespace
