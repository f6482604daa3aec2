// The interactive command loop on the line editor, its built-in commands and
// the dispatcher that sends every other line to the connector.
#include <libtecla.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cli_client.hpp"
#include "completion.hpp"
#include "fixed_text.hpp"
#include "ipc_channel.hpp"
#include "osal.hpp"
#include "regexparser.hpp"
#include "xml_messages.hpp"

namespace {

constexpr std::size_t EDITOR_LINE_LEN = 500;
constexpr std::size_t EDITOR_HISTORY_LEN = 5000;
constexpr const char* HISTORY_FILE = "~/.cli_history";
constexpr const char* HISTORY_COMMENT = "#";
constexpr std::size_t REQUEST_TEXT_LEN = 256;
constexpr useconds_t REPLY_PAUSE_US = 250000;

std::array<std::atomic<char>, CLI_PROMPT_LEN> prompt_chars{};

// VT220 Home, Insert, End, Page Up and Page Down.
struct KeyBinding {
    const char* sequence;
    const char* action;
};
constexpr KeyBinding key_bindings[] = {
    {"M-[1~", "beginning-of-line"},    {"M-[2~", "forward-delete-char"}, {"M-[4~", "end-of-line"},
    {"M-[5~", "beginning-of-history"}, {"M-[6~", "end-of-history"},
};

struct EditorDeleter {
    void operator()(GetLine* gl) const noexcept { del_GetLine(gl); }
};
using Editor = std::unique_ptr<GetLine, EditorDeleter>;

// The editor hands back at most EDITOR_LINE_LEN characters of a line; one cut
// there comes without its newline. On a terminal the editor has dropped the
// excess keystrokes itself, but from a pipe it would hand back the same cut
// line on every call: the rest of the line is read and dropped here, so that
// a script goes on with its next line.
void drop_rest_of_cut_line(GetLine* gl) {
    if (isatty(STDIN_FILENO) != 0) return;
    for (;;) {
        gl_abandon_line(gl);
        const char* rest = gl_get_line(gl, "", nullptr, 0);
        if (rest == nullptr || std::string_view(rest).ends_with('\n')) return;
    }
}

// Reads the next line, which ends with its newline; null at the end of input.
// A line the editor cut, one that a NUL byte ended (the editor drops the rest
// of it) and one that ends with CR LF (a script saved on another system) come
// back in `held`.
const char* read_line(GetLine* gl, std::span<char> held) {
    char prompt[CLI_PROMPT_LEN] = {};
    cli_prompt_text(prompt);
    const char* input = gl_get_line(gl, prompt, nullptr, 0);
    if (input == nullptr) return nullptr;
    std::string_view text(input);
    if (text.ends_with("\r\n")) {
        text.remove_suffix(2);
    } else if (text.ends_with('\n')) {
        return input;
    } else if (text.size() >= EDITOR_LINE_LEN) {
        // Cut: the loop drops its last character as it would the newline.
        tx::copy_bounded(held, text);
        drop_rest_of_cut_line(gl);
        return held.data();
    }
    // Too long a line keeps its first characters and loses the newline, as
    // the loop expects of a line that does not fit.
    tx::copy_bounded(held, text);
    tx::append_bounded(held, "\n");
    return held.data();
}

bool contains(std::string_view line, std::string_view what) {
    return line.find(what) != std::string_view::npos;
}

struct CompletionHook {
    GetLine* editor;
    tx::grammar::Completer completer;
};

// TAB: the words the table allows at the cursor; where it allows a range or
// free text, the help line of the row instead.
CPL_MATCH_FN(complete_command) {
    auto* hook = static_cast<CompletionHook*>(data);
    const tx::grammar::Completion found =
        hook->completer.complete(std::string_view(line, static_cast<std::size_t>(word_end)));
    const std::size_t typed = static_cast<std::size_t>(word_end) - found.word_start;
    for (const std::string_view candidate : found.candidates) {
        const std::string suffix(candidate.substr(typed));
        cpl_add_completion(cpl, line, static_cast<int>(found.word_start), word_end, suffix.c_str(),
                           "", " ");
    }
    if (found.candidates.empty() && !found.help.empty() && gl_normal_io(hook->editor) == 0) {
        for (const char* help : found.help) std::puts(help);
    }
    return 0;
}

}  // namespace

void cli_set_prompt(bool shown) {
    constexpr std::string_view text = "cli> ";
    if (!shown) {
        prompt_chars[0].store('\0', std::memory_order_relaxed);
        return;
    }
    // Terminator first, first character last: a reader never runs past the end.
    prompt_chars[text.size()].store('\0', std::memory_order_relaxed);
    for (std::size_t i = text.size(); i-- > 0;) {
        prompt_chars[i].store(text[i], std::memory_order_relaxed);
    }
}

void cli_prompt_text(std::span<char> out) {
    if (out.empty()) return;
    std::size_t i = 0;
    for (; i + 1 < out.size() && i < prompt_chars.size(); ++i) {
        out[i] = prompt_chars[i].load(std::memory_order_relaxed);
        if (out[i] == '\0') return;
    }
    out[i] = '\0';
}

int cli_send_command(const char* line, std::size_t length, const tx::grammar::Caller& caller) {
    // Stray keystrokes are not worth an error.
    if (length < 2) return 0;

    const tx::grammar::Match match = tx::grammar::match({line, length}, caller);
    std::fputs(match.reports.c_str(), stdout);
    if (match.row == nullptr) {
        char prompt[CLI_PROMPT_LEN] = {};
        cli_prompt_text(prompt);
        std::printf("%s\n\r%s", tx::grammar::kSyntaxError.data(), prompt);
        std::fflush(stdout);
        return 0;
    }
    // A refused line still goes out, with an empty action.
    if (!match.refusal.empty()) std::puts(match.refusal.c_str());
    const RequestRecord& record = match.record;

    char out[REQUEST_TEXT_LEN] = {};
    // The operator account's room-control mode must be undone when it leaves.
    if (caller.uid == CLI_OPERATOR_UID &&
        tx::field_view(record.property) == "sys.dialer-connection-mode" &&
        tx::field_view(record.action) == "set") {
        roomcontrol_active.store(tx::field_view(record.values.single) == "rc" ? 1 : 0);
    }

    generate_xml_request(record, out);
    if (out[0] == '\0') return 1;

    const int sent = cli_channel->send(cli_channel, out, getpid(), 0);
    if (sent == 0) std::printf("%s:%d: error sending cli command. \n", "cli_client", 439);
    // Gives the receiver time to show the reply before the next prompt.
    usleep(REPLY_PAUSE_US);
    return sent;
}

// One line of the loop: a built-in command, or a command for the connector.
void run_line(Editor& editor, const char* line, const tx::grammar::Caller& caller) {
    const std::string_view text{line};
    using tx::grammar::Builtin;
    switch (tx::grammar::classify_builtin(text)) {
        case Builtin::exit:
            // History is not saved on this way out.
            cli_begin_departure();
            editor.reset();
            cli_notify_departure();
            if (roomcontrol_active.load() != 0) cli_clear_roomcontrol();
            std::exit(0);
        case Builtin::echo:
            gl_echo_mode(editor.get(), contains(text, "1") ? 1 : 0);
            break;
        case Builtin::help:
            std::fputs(tx::grammar::help_text(
                           text.substr(tx::grammar::builtin_name(Builtin::help).size()), caller.uid)
                           .c_str(),
                       stdout);
            break;
        case Builtin::prompt:
            cli_set_prompt(contains(text, "1"));
            break;
        case Builtin::none:
            cli_send_command(line, text.size(), caller);
            break;
    }
}

int cli_command_loop(int register_first, std::unique_ptr<char[]> one_shot_command) {
    const uid_t uid = getuid();
    // The device's model does not change while the client runs.
    const tx::grammar::Caller caller{uid, osal_voip_capable()};
    Editor editor{new_GetLine(EDITOR_LINE_LEN, EDITOR_HISTORY_LEN)};
    if (!editor) return 1;
    GetLine* gl = editor.get();

    gl_load_history(gl, HISTORY_FILE, HISTORY_COMMENT);
    for (const KeyBinding& binding : key_bindings) {
        gl_bind_keyseq(gl, GL_USER_KEY, binding.sequence, binding.action);
    }
    CompletionHook completion{gl, tx::grammar::Completer(uid, caller.voip)};
    gl_customize_completion(gl, &completion, complete_command);
    gl_echo_mode(gl, 0);
    if (uid == CLI_OPERATOR_UID) std::puts("Welcome to the TX-416 IP Management Interface\n");

    for (;;) {
        const char* input = nullptr;
        bool last_pass = false;
        char held[CLI_LINE_LEN] = {};
        if (one_shot_command) {
            input = one_shot_command.get();
            last_pass = true;
        } else if (register_first != 0) {
            input = "regnotify\n";
            register_first = 0;
        } else {
            input = read_line(gl, held);
            if (input == nullptr) {
                cli_begin_departure();
                gl_save_history(gl, HISTORY_FILE, HISTORY_COMMENT, -1);
                return 0;
            }
        }

        // Lines end with a newline, which goes; a longer line than the buffer
        // holds is cut first, so its 127th character goes instead.
        char line[CLI_LINE_LEN] = {};
        const std::size_t copied = tx::copy_bounded(line, input);
        if (copied > 0) line[copied - 1] = '\0';
        run_line(editor, line, caller);

        if (last_pass) {
            cli_begin_departure();
            gl_save_history(gl, HISTORY_FILE, HISTORY_COMMENT, -1);
            return 0;
        }
    }
}
