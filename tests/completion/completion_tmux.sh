#!/usr/bin/env bash
# TAB completion on a real terminal: cli runs under tmux inside the sandbox,
# keys go in with send-keys and the screen comes back with capture-pane. The
# connector runs first, since cli signals it by name when it leaves.
set -euo pipefail

bin=${TX_BIN_DIR:?}
if [ $$ -ne 1 ]; then
    echo "completion_tmux: not inside the sandbox, refusing to start cli" >&2
    exit 1
fi
command -v tmux > /dev/null || { echo "completion_tmux: tmux missing (tools/install-deps)" >&2; exit 1; }

export HOME=/tmp PLATFORM_CMDLINE=/tmp/cmdline
echo "voip_capable=1" > /tmp/cmdline
${TX_EMULATOR:-} "$bin/cliconn" > /tmp/cliconn.log 2>&1 &
conn=$!
term() { tmux -L tx -f /dev/null "$@"; }
trap 'term kill-server 2> /dev/null || true; kill $conn 2> /dev/null || true' EXIT
for _ in $(seq 100); do
    [ "$(ipcs -q | grep -c '^0x')" -ge 2 ] && break
    sleep 0.05
done

term new-session -d -s cli -x 160 -y 50 "${TX_EMULATOR:-} $bin/cli"
failed=0
# check TEXT... -- KEYS...: types the keys on an empty line, waits until the
# screen shows every text, then empties the line again.
check() {
    local wants=()
    while [ "$1" != -- ]; do
        wants+=("$1")
        shift
    done
    shift
    term send-keys -t cli "$@"
    for want in "${wants[@]}"; do
        for _ in $(seq 50); do
            term capture-pane -p -t cli | grep -qF -- "$want" && continue 2
            sleep 0.1
        done
        echo "FAIL: after typing $* the screen lacks: $want"
        term capture-pane -p -t cli | grep -v '^$'
        failed=1
    done
    term send-keys -t cli C-u
}

term send-keys -t cli "set echo 1" Enter "set prompt 1" Enter
check "cli> regnotify X" -- "regn" Tab X
check "cli> get speaker-" "speaker-mute" "speaker-volume" -- "get spea" Tab
check "cli> set dialer-connection-mode disconnected X" -- "set dialer-connection-mode d" Tab X
check '"set speaker-volume <1-18>" - ' -- "set speaker-volume " Tab
check "cli> help voip X" -- "help vo" Tab X
[ "${TX_SHOW_SCREEN:-}" = 1 ] && term capture-pane -p -t cli | grep -v '^$'
exit "$failed"
