#!/usr/bin/env bash
# Ctrl-C at the terminal during a Bluetooth move through scripts/sim-bluez:
# the interrupt reaches the tool (not the simulated stack around it), the
# motor is stopped over Bluetooth, the exit status is 130, nothing is left.
# Usage: ctrl_c_test.sh SOURCE-DIR BUILD-DIR
set -euo pipefail
src="$1" build="$2"
work="$(mktemp -d /tmp/nkr-ctrl-c-test.XXXXXX)"
trap 'rm -rf "$work"' EXIT
export HOME="$work" XDG_RUNTIME_DIR="$work" XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state"

# A process group of its own, like a terminal's foreground job.
setsid bash -c "'$src/scripts/sim-bluez' --build '$build' '$build/tools/nkr' --ble 'NKR Pro_A1B2' move 40000 \
  > '$work/out' 2>&1; echo \"status \$?\" >> '$work/out'" &
leader=$!
for _ in $(seq 200); do grep -q '^Moving' "$work/out" 2>/dev/null && break; sleep 0.05; done
grep -q '^Moving' "$work/out" || { echo "the move did not start:"; cat "$work/out"; exit 1; }
sleep 0.3
kill -INT -- "-$leader"
for _ in $(seq 200); do grep -q '^status' "$work/out" && break; sleep 0.05; done
cat "$work/out"
grep -q '^status 130$' "$work/out" || { echo "FAIL: exit status is not 130"; exit 1; }
grep -q 'Stopped at position' "$work/out" || { echo "FAIL: the motor was not stopped"; exit 1; }
if grep -q 'failed' "$work/out"; then echo "FAIL: something failed"; exit 1; fi
left="$(sed -n 's|.*unix:path=\(/tmp/nkr-sim-bluez\.[^/]*\)/.*|\1|p' "$work/out")"
[ -n "$left" ] && [ ! -e "$left" ] || { echo "FAIL: the script's folder '$left' was left behind"; exit 1; }
echo "ok"
