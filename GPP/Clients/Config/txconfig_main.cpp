// txconfig: the device's configuration as one text.
//
//   txconfig show [--json] [--with-secrets]
//   txconfig diff [--with-secrets] FILE
//   txconfig apply [--check] [--with-secrets] FILE
//
// FILE "-" is standard input. Exit status: 0 done (diff: nothing to change),
// 1 diff found changes, 2 an error (nothing sent when FILE has a bad line),
// 3 apply made changes that did not all take effect.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cliconn_link.hpp"
#include "config_client.hpp"
#include "osal.hpp"

namespace {

using tx::config::Change;
using tx::config::Configuration;

constexpr int kDone = 0;
constexpr int kDiffers = 1;
constexpr int kError = 2;
constexpr int kNotTaken = 3;
// Far more than any configuration: a larger file is not one.
constexpr std::size_t kMaxFileBytes = 1 << 20;

constexpr const char* kUsage =
    "usage: txconfig show [--json] [--with-secrets]\n"
    "       txconfig diff [--with-secrets] FILE\n"
    "       txconfig apply [--check] [--with-secrets] FILE\n"
    "FILE - is standard input.\n";

struct Options {
    std::string command;
    std::string file;
    bool json = false;
    bool with_secrets = false;
    bool check = false;
};

int fail(const std::string& message) {
    std::fprintf(stderr, "txconfig: %s\n", message.c_str());
    return kError;
}

int usage_error(const std::string& message) {
    std::fprintf(stderr, "txconfig: %s\n%s", message.c_str(), kUsage);
    return kError;
}

// 0 when the options hold, else the exit status.
int parse_options(int argc, char** argv, Options& options) {
    enum { kJson = 1, kWithSecrets, kCheck, kHelp };
    static const option kLong[] = {
        {"json", no_argument, nullptr, kJson},
        {"with-secrets", no_argument, nullptr, kWithSecrets},
        {"check", no_argument, nullptr, kCheck},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, "", kLong, nullptr)) != -1) {
        switch (option) {
            case kJson:
                options.json = true;
                break;
            case kWithSecrets:
                options.with_secrets = true;
                break;
            case kCheck:
                options.check = true;
                break;
            case kHelp:
                std::fputs(kUsage, stdout);
                return -1;
            default:
                // A short option may share its word with others ("-xy"):
                // getopt names it in optopt, and the word may still be ahead.
                return usage_error("unknown option " +
                                   (optopt > kHelp ? std::string("-") + static_cast<char>(optopt)
                                                   : std::string(argv[optind - 1])));
        }
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    if (words.empty()) return usage_error("no command");
    options.command = words[0];
    const bool takes_file = options.command == "diff" || options.command == "apply";
    if (options.command != "show" && !takes_file) {
        return usage_error("unknown command " + options.command);
    }
    if (words.size() != (takes_file ? 2U : 1U)) {
        return usage_error(takes_file ? options.command + " takes one FILE" : "show takes no FILE");
    }
    if (takes_file) options.file = words[1];
    if (options.json && options.command != "show") return usage_error("--json is for show");
    if (options.check && options.command != "apply") return usage_error("--check is for apply");
    if (options.with_secrets && getuid() != 0) {
        return fail("--with-secrets is for root only");
    }
    return 0;
}

bool read_file(const std::string& path, std::string& text, std::string& error) {
    FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    char chunk[4096];
    std::size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0 && text.size() <= kMaxFileBytes) {
        text.append(chunk, n);
    }
    const bool failed = std::ferror(file) != 0;
    if (file != stdin) std::fclose(file);
    if (failed) {
        error = "cannot read " + path;
    } else if (text.size() > kMaxFileBytes) {
        error = path + " is larger than 1 MiB: not a configuration";
    }
    return error.empty();
}

bool print(const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
}

int show(const Configuration& configuration, tx::config::Device& device, const Options& options) {
    tx::config::Running running;
    std::string error;
    if (!configuration.read(device, options.with_secrets, running, error)) {
        return fail("reading the configuration: " + error);
    }
    print(options.json ? configuration.json(running) : configuration.text(running));
    return kDone;
}

int diff_or_apply(const Configuration& configuration, tx::config::Device& device,
                  const std::vector<tx::config::Assignment>& assignments, const Options& options) {
    std::vector<Change> changes;
    std::string error;
    if (!configuration.changes(device, assignments, changes, error)) {
        return fail("reading the configuration: " + error);
    }
    if (options.command == "diff") {
        print(tx::config::diff_text(configuration, changes, options.with_secrets));
        return changes.empty() ? kDone : kDiffers;
    }
    if (options.check) {
        print(tx::config::plan_text(changes, options.with_secrets));
        return kDone;
    }
    const std::vector<tx::config::Result> results = configuration.apply(device, changes, error);
    print(tx::config::report_text(results, options.with_secrets));
    if (!error.empty()) {
        return fail(error + "; the last change that took effect: " +
                    tx::config::last_taken(results, options.with_secrets));
    }
    std::size_t not_taken = 0;
    for (const tx::config::Result& r : results) {
        not_taken += r.outcome == tx::config::Outcome::took_effect ? 0 : 1;
    }
    if (not_taken > 0) {
        std::fprintf(stderr, "txconfig: %zu of %zu changes did not take effect\n", not_taken,
                     results.size());
        return kNotTaken;
    }
    return kDone;
}

int run(int argc, char** argv) {
    Options options;
    if (const int status = parse_options(argc, argv, options); status != 0) {
        return status < 0 ? kDone : status;
    }
    // The device's model does not change while txconfig runs.
    const Configuration configuration({getuid(), osal_voip_capable()});

    std::vector<tx::config::Assignment> assignments;
    if (!options.file.empty()) {
        std::string text;
        std::string error;
        if (!read_file(options.file, text, error)) return fail(error);
        std::vector<std::string> errors;
        const std::string name = options.file == "-" ? "<stdin>" : options.file;
        if (!configuration.check(text, name, assignments, errors)) {
            for (const std::string& e : errors) std::fprintf(stderr, "%s\n", e.c_str());
            return fail("nothing sent: " + std::to_string(errors.size()) + " bad line" +
                        (errors.size() == 1 ? "" : "s"));
        }
    }

    std::string error;
    const std::unique_ptr<tx::config::CliconnLink> link = tx::config::CliconnLink::open(error);
    if (!link) return fail(error);
    const int status = options.command == "show"
                           ? show(configuration, *link, options)
                           : diff_or_apply(configuration, *link, assignments, options);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        return fail("cannot write the output");
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A closed output is an error to report, not a reason to leave without
    // telling cliconn.
    signal(SIGPIPE, SIG_IGN);
    return run(argc, argv);
}
