#!/usr/bin/env bash
# The collection tx416.device against `tools/run-fleet 3`: the baseline
# playbook changes every device and then nothing, --check --diff shows the
# change and leaves the devices' settings as they were, backups hold what
# `txconfig show` printed, a stopped device is unreachable while the others
# change, and the errors of errors.yml. Runs inside tools/sandbox, as root.
#
# Usage: fleet_test.sh WORK_DIR      (emptied first)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd -P)
root=$(cd "$here/../.." && pwd -P)
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: the simulated devices need root"
    exit 77
fi
work=$1
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd -P)
fleet=$work/fleet
export TX_FLEET_DIR=$fleet ANSIBLE_HOME=$work/ansible ANSIBLE_SSH_CONTROL_PATH_DIR=$work/cp
export ANSIBLE_COLLECTIONS_PATH=$fleet/collections
export ANSIBLE_NOCOLOR=1

"$root/tools/run-fleet" 3 > "$work/run-fleet.log" 2>&1 &
run_fleet=$!
trap 'kill $run_fleet 2> /dev/null; wait $run_fleet || true' EXIT
until [ -f "$fleet/inventory.ini" ]; do
    kill -0 $run_fleet 2> /dev/null || { cat "$work/run-fleet.log"; exit 1; }
    sleep 0.1
done

fail() {
    echo "FAILED: $*"
    cat "$work/last.log"
    exit 1
}
# Runs a playbook; the output stays in last.log.
play() {
    echo "=== ansible-playbook $*"
    ansible-playbook -i "$fleet/inventory.ini" "$@" > "$work/last.log" 2>&1 || true
}
# expect FIELD=VALUE HOST...: the play recap line of each host holds it.
expect() {
    for host in "${@:2}"; do
        grep -Eq "^$host +: .* $1 " "$work/last.log" || fail "$host: not $1"
    done
}
show() {
    ssh -i "$fleet/id_ed25519" -o UserKnownHostsFile="$fleet/known_hosts" -o BatchMode=yes \
        -p "$(cat "$fleet/$1/port")" root@127.0.0.1 txconfig show
}

for d in dev1 dev2 dev3; do show $d > "$work/$d.before"; done
play tx416.device.baseline -e backup=true -e backup_dir="$work/backup"
expect changed=1 dev1 dev2 dev3
for d in dev1 dev2 dev3; do
    cmp "$work/backup/$d.cfg" "$work/$d.before" || fail "$d: the backup is not what txconfig show printed"
done
play tx416.device.baseline
expect changed=0 dev1 dev2 dev3

sed 's/^set ringer-volume .*/set ringer-volume 8/' "$root/ansible/playbooks/files/baseline.cfg" > "$work/baseline.cfg"
for d in dev1 dev2 dev3; do cp "$fleet/$d/coresim.state" "$work/$d.state"; done
play tx416.device.baseline -e baseline="$work/baseline.cfg" --check --diff
expect changed=1 dev1 dev2 dev3
grep -q '^-set ringer-volume 6$' "$work/last.log" && grep -q '^+set ringer-volume 8$' "$work/last.log" ||
    fail "--diff shows no change of the ringer volume"
for d in dev1 dev2 dev3; do
    cmp "$fleet/$d/coresim.state" "$work/$d.state" || fail "$d: --check changed the device"
done

dev3=$(cat "$fleet/dev3/pid")
kill "$dev3"
while kill -0 "$dev3" 2> /dev/null; do sleep 0.05; done
play tx416.device.baseline -e baseline="$work/baseline.cfg"
expect changed=1 dev1 dev2
expect unreachable=1 dev3

play "$here/errors.yml" -e fleet_dir="$fleet"
expect failed=0 dev1 dev2
echo "fleet: passed"
