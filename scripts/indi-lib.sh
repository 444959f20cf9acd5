# Shell helpers of the INDI driver's end-to-end scripts (sourced, not run):
# one indiserver in FIFO form on a free loopback port, driver instances
# started under names, the INDI command-line clients bounded in time, and the
# simulator's control socket of each driver process.
#
# The sourcing script sets: work (its temporary directory), driver, simdir,
# and calls indi_environment before starting the server. Servers get their own
# local socket (-u), so a running indiserver is left alone, and run under
# timeout, so they go even if the script is killed outright.

HOST=127.0.0.1
server_pid=""
port=""

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

step()
{
    echo "== $*"
}

free_port()
{
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Private HOME and XDG directories, the simulator in place of hidapi and the
# Bluetooth helper, a control socket per driver process.
indi_environment()
{
    export HOME="$work/home"
    export XDG_RUNTIME_DIR="$work/run" XDG_CONFIG_HOME="$work/home/.config"
    export XDG_DATA_HOME="$work/home/.local/share" XDG_CACHE_HOME="$work/home/.cache"
    mkdir -p "$HOME" "$XDG_RUNTIME_DIR"
    chmod 700 "$XDG_RUNTIME_DIR"
    export LD_LIBRARY_PATH="$simdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
    export NKR_BLE_HELPER="$simdir/libhidapi-hidraw.so.0"
    export NKR_SIM_CONTROL="$work/sim-%p.sock"
}

# Process id of the driver last started under a name (indiserver logs the
# name, then the pid).
driver_pid_of()
{
    awk -v name="With name: $1" 'index($0, name) { found = 1; next }
        found && /pid=/ { sub(/.*pid=/, ""); sub(/ .*/, ""); pid = $0; found = 0 }
        END { print pid }' "$work/server.log"
}

all_driver_pids()
{
    sed -n 's/.*Driver .*: pid=\([0-9]*\).*/\1/p' "$work/server.log" 2>/dev/null
}

stop_server()
{
    [ -n "$server_pid" ] || return 0
    local children
    children="$(all_driver_pids)"
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=""
    # Drivers leave when their pipe from the server closes; make sure they did.
    local child
    for child in $children; do
        for _ in 1 2 3 4 5 6 7 8 9 10; do
            kill -0 "$child" 2>/dev/null || break
            sleep 0.2
        done
        kill "$child" 2>/dev/null || true
    done
}

show_logs()
{
    echo "---- indiserver log" >&2
    cat "$work/server.log" >&2 2>/dev/null || true
    echo "---- driver messages" >&2
    cat "$work"/*.islog >&2 2>/dev/null || true
}

# indiserver reading driver starts from a FIFO; give up after limit seconds.
start_fifo_server()
{
    local limit="$1"
    mkfifo "$work/fifo"
    for _ in 1 2 3 4 5; do
        port="$(free_port)"
        timeout "$limit" indiserver -p "$port" -u "$work/indiserver.sock" -l "$work" -v \
            -f "$work/fifo" >"$work/server.log" 2>&1 &
        server_pid=$!
        for _ in $(seq 30); do
            kill -0 "$server_pid" 2>/dev/null || break  # port taken: try another
            grep -q "listening to port $port" "$work/server.log" 2>/dev/null && return 0
            sleep 0.1
        done
        stop_server
    done
    fail "indiserver did not start"
}

# indiserver with one driver on its command line; waits until the device
# answers. start_cmdline_server <limit s> <device>
start_cmdline_server()
{
    local limit="$1" device="$2"
    for _ in 1 2 3 4 5; do
        port="$(free_port)"
        timeout "$limit" indiserver -p "$port" -u "$work/indiserver.sock" -l "$work" -v "$driver" \
            >"$work/server.log" 2>&1 &
        server_pid=$!
        for _ in $(seq 50); do
            kill -0 "$server_pid" 2>/dev/null || break  # port taken: try another
            if indi_getprop -h "$HOST" -p "$port" -t 1 -1 "$device.CONNECTION.CONNECT" \
                >/dev/null 2>&1; then
                return 0
            fi
            sleep 0.1
        done
        stop_server
    done
    fail "indiserver did not come up with the driver"
}

# start_driver <name>: a driver instance under that device name; waits until
# it answers and its simulator's control socket is there.
start_driver()
{
    # The FIFO is opened and closed per command, as indiserver expects.
    echo "start $driver -n \"$1\"" >"$work/fifo"
    for _ in $(seq 100); do
        if indi_getprop -h "$HOST" -p "$port" -t 1 -1 "$1.CONNECTION.CONNECT" >/dev/null 2>&1; then
            local pid
            pid="$(driver_pid_of "$1")"
            [ -n "$pid" ] && [ -S "$work/sim-$pid.sock" ] && return 0
        fi
        sleep 0.1
    done
    fail "driver instance '$1' did not come up"
}

# stop_driver_wait <name>: stops that instance and waits until its process is gone.
stop_driver_wait()
{
    local pid
    pid="$(driver_pid_of "$1")"
    echo "stop $driver -n \"$1\"" >"$work/fifo"
    for _ in $(seq 50); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    fail "driver instance '$1' did not stop"
}

# sim <name> <command...>: a command to the simulated world of that instance.
sim()
{
    local name="$1"
    shift
    "$root/scripts/indi-simctl" "$work/sim-$(driver_pid_of "$name").sock" "$@" ||
        fail "simulator of '$name' refused: $*"
}

# ---- INDI clients; every one bounded in time --------------------------------
# set_prop <device.property.element=value>...
set_prop()
{
    indi_setprop -h "$HOST" -p "$port" -t 5 "$@" || fail "could not set $*"
}

# get_prop <device.property.element>
get_prop()
{
    indi_getprop -h "$HOST" -p "$port" -t 5 -1 "$1" || fail "could not read $1"
}

# wait_for <seconds> <expression over "device.property.element" operands> <what>
wait_for()
{
    indi_eval -h "$HOST" -p "$port" -t "$1" -w "$2" >/dev/null ||
        fail "$3 (waited $1 s for: $2)"
}

# operand <device> <property.element>: an operand of indi_eval.
operand()
{
    printf '"%s.%s"' "$1" "$2"
}

# expect_prop <device.property.element> <value>
expect_prop()
{
    local value
    value="$(get_prop "$1")"
    [ "$value" = "$2" ] || fail "$1 is '$value', expected '$2'"
}

# Driver messages so far that contain a text.
messages_with()
{
    cat "$work"/*.islog 2>/dev/null | grep -c -- "$1" || true
}

# wait_for_message <seconds> <text> <failure>: a driver's message reaches the
# log after the property update it goes with, so wait (bounded) for it.
wait_for_message()
{
    local deadline=$((SECONDS + $1))
    until [ "$(messages_with "$2")" -ge 1 ]; do
        [ "$SECONDS" -lt "$deadline" ] || fail "$3"
        sleep 0.1
    done
}

# unit_labels <device>: the labels of that instance's NKR_UNITS, one a line.
unit_labels()
{
    python3 - "$root/scripts" "$port" "$1" <<'PY' || fail "could not read the unit list of '$1'"
import sys
sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv[1])
from indi_wire import Client, is_vector
client = Client(int(sys.argv[2]), sys.argv[3])
client.get_properties("NKR_UNITS")
for unit in client.wait(lambda e: is_vector(e, "NKR_UNITS", device=sys.argv[3]), 5, "NKR_UNITS"):
    print(unit.get("label"))
PY
}
