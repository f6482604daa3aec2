# -*- coding: utf-8 -*-
# The one place that knows how a TX-416 is reached and what its programs
# print: the action plugins run `txconfig` and `cli -c` on the device through
# the task's connection (the device has no Python) and read their output here.

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import shlex

# `cli` signals every process it can reach when it leaves and finds no
# cliconn, so it is never started without one.
CLICONN_GUARD = "pidof cliconn >/dev/null || { echo 'cliconn is not running' >&2; exit 2; }"
# A line longer than this is cut by `cli -c` without a word.
CLI_LINE_MAX = 126
# Printed before each reply of a command batch; no reply line starts with it.
REPLY_MARK = "::tx416-reply::"
# What `cli` prints for a line that no row of the grammar accepts for the
# account (and for a duplicate line), and what it greets the operator with.
SYNTAX_ERROR = "command syntax error"
OPERATOR_BANNER = "Welcome to the TX-416 IP Management Interface"
# What `cli` prints when cliconn turns it away: all of its client sessions
# are taken (the operator's cli cannot signal root's cliconn when it leaves,
# so its sessions stay until they time out). The line was not sent.
TURNED_AWAY = "terminate_client"
# The batch stops at the first refused or turned-away line with these.
SYNTAX_STATUS = 3
TURNED_AWAY_STATUS = 4

# txconfig's exit status besides 0 and 2 (an error): diff found changes;
# apply made changes that did not all take effect.
TXCONFIG_CHANGES = 1
TXCONFIG_NOT_TAKEN = 3


class DeviceError(Exception):
    """A device program failed; the message is the device's own."""

    def __init__(self, message, rc=None, stdout=""):
        super(DeviceError, self).__init__(message)
        self.rc = rc
        self.stdout = stdout


def run(action, command, stdin=None):
    """Runs a shell command on the device; returns (rc, stdout, stderr)."""
    # Not sudoable: no terminal, so replies come back as the programs wrote them.
    res = action._low_level_execute_command(
        command, sudoable=False, in_data=stdin.encode("utf-8") if stdin is not None else None)
    return res["rc"], res.get("stdout", ""), res.get("stderr", "")


def txconfig(action, args, stdin=None, with_secrets=False):
    words = ["txconfig"] + list(args) + (["--with-secrets"] if with_secrets else [])
    return run(action, " ".join(shlex.quote(w) for w in words), stdin)


def failure_message(rc, stdout, stderr):
    text = (stderr or "").strip() or (stdout or "").strip()
    return text or "exit status %d" % rc


def show(action, json_format=False, with_secrets=False):
    """The device's configuration text (or JSON text)."""
    rc, out, err = txconfig(action, ["show"] + (["--json"] if json_format else []),
                            with_secrets=with_secrets)
    if rc != 0:
        raise DeviceError(failure_message(rc, out, err), rc)
    return out


def strip_comment(line):
    """A config line without its trailing `# ...` comment (a `#` inside
    double quotes is part of the value)."""
    quoted = False
    escaped = False
    for i, c in enumerate(line):
        if escaped:
            escaped = False
        elif c == "\\" and quoted:
            escaped = True
        elif c == '"':
            quoted = not quoted
        elif c == "#" and not quoted and (i == 0 or line[i - 1] in " \t"):
            return line[:i].rstrip()
    return line.rstrip()


def diff(action, wanted, with_secrets=False):
    """The `set` lines that would bring the device to `wanted` (a secret
    that differs is a comment line without `with_secrets`)."""
    rc, out, err = txconfig(action, ["diff", "-"], wanted, with_secrets)
    if rc not in (0, TXCONFIG_CHANGES):
        raise DeviceError(failure_message(rc, out, err), rc)
    return [strip_comment(line) for line in out.splitlines() if line.startswith("set ")]


def apply(action, wanted, check, with_secrets=False):
    """Applies `wanted` (`check`: only says what it would change); returns
    apply's report, one line per change. When txconfig fails, DeviceError
    carries the report of what it did in its stdout."""
    args = ["apply"] + (["--check"] if check else []) + ["-"]
    rc, out, err = txconfig(action, args, wanted, with_secrets)
    if rc != 0:
        raise DeviceError(failure_message(rc, out, err), rc, out)
    return report(out)


def report(text):
    return [line.strip() for line in text.splitlines() if line.strip() and not line.startswith("#")]


def took_effect(report_line):
    """Whether a line of apply's report is a change that took effect
    (`speaker-volume 9 -> 12`) rather than one the device did not take
    (`...: not taken, reads back 9`) or did not confirm."""
    return ": not taken, reads back " not in report_line and not report_line.endswith(": not confirmed")


def _leading_words_in_common(a, b):
    # `set`, the name and, for a setting held per id (a line, a microphone),
    # the id come first; the value may hold blanks.
    ta, tb = a.split(), b.split()
    n = 0
    while n < min(len(ta), len(tb)) and ta[n] == tb[n]:
        n += 1
    return n


def updated(before, set_lines):
    """The configuration text `before` with `set_lines` in place of the lines
    of the same settings. Lines of one name differ in their id, so the line
    sharing the most leading words with a new line is the one it replaces."""
    lines = before.splitlines()
    for new in set_lines:
        best, best_score = None, 1  # more than `set`: the name at least
        for i, old in enumerate(lines):
            score = _leading_words_in_common(old, new) if old.startswith("set ") else 0
            if score > best_score:
                best, best_score = i, score
        if best is None:
            lines.append(new)
        else:
            lines[best] = new
    return "\n".join(lines) + "\n" if lines else ""


def is_query(line):
    """`get` and `help` lines read; every other line acts on the device."""
    words = line.split()
    return bool(words) and words[0] in ("get", "help")


def check_command_line(line):
    if not line.strip():
        return "an empty command line"
    if "\n" in line or "\r" in line:
        return "a command line holds a line break: %r" % line
    if len(line) > CLI_LINE_MAX:
        return "longer than %d characters: %s" % (CLI_LINE_MAX, line)
    return None


def command_batch(lines):
    """One shell command that runs each line through `cli -c` in turn, each
    reply after a mark, and stops at the first line that the grammar refuses
    or cliconn turns away."""
    steps = []
    for line in lines:
        steps.append(
            "%s; echo '%s'; r=$(cli -c %s); printf '%%s\\n' \"$r\"; "
            "case $r in *'%s'*) exit %d;; *'%s'*) exit %d;; esac"
            % (CLICONN_GUARD, REPLY_MARK, shlex.quote(line), SYNTAX_ERROR, SYNTAX_STATUS,
               TURNED_AWAY, TURNED_AWAY_STATUS))
    return "; ".join(steps)


def replies(stdout):
    """The reply of each line of a batch, as text without the console's
    carriage returns, blank lines and the operator's greeting."""
    result = []
    for chunk in stdout.replace("\r", "").split(REPLY_MARK + "\n")[1:]:
        kept = [l for l in chunk.split("\n") if l.strip() and l != OPERATOR_BANNER]
        result.append("\n".join(kept))
    return result


def run_commands(action, lines):
    """Runs `lines` with `cli`; returns their replies. A refused or unsent
    line raises DeviceError naming it, with the replies up to it in its stdout."""
    rc, out, err = run(action, command_batch(lines))
    got = replies(out)
    if rc == SYNTAX_STATUS and got:
        raise DeviceError("%s: %s" % (got[-1], lines[len(got) - 1]), rc, got)
    if rc == TURNED_AWAY_STATUS and got:
        raise DeviceError("not sent, all of cliconn's client sessions are taken: %s"
                          % lines[len(got) - 1], rc, got)
    if rc != 0:
        raise DeviceError(failure_message(rc, out, err), rc, got)
    return got
