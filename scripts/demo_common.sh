# What the demonstrations share; bash, read with "source". Not to be run by itself.

say() { printf '\n=== %s\n' "$*"; }
fail() {
    printf 'demo: %s\n' "$*" >&2
    exit 1
}

# is_up PID: while it runs; a child that has ended is none.
is_up() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null; }
is_gone() { ! is_up "$1"; }

# stop SIGNAL PID...: ends the processes and waits for them, not for ever.
stop() {
    local signal=$1 pid deadline=$((SECONDS + 20))
    shift
    for pid in "$@"; do kill "-$signal" "$pid" 2>/dev/null || true; done
    for pid in "$@"; do
        while is_up "$pid" && [ $SECONDS -lt $deadline ]; do sleep 0.05; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}

# wait_for SECONDS COMMAND...: until the command succeeds. On a busy machine a second is short.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || fail "waited in vain for: $*"
        sleep 0.05
    done
}

# says PID FILE PATTERN: waits until a line of a process's output matches; fails when it ends before.
says() {
    local deadline=$((SECONDS + 60))
    until grep -q -e "$3" "$2"; do
        is_up "$1" || grep -q -e "$3" "$2" || fail "ended without saying \"$3\": $(cat "$2")"
        [ $SECONDS -lt $deadline ] || fail "waited in vain for \"$3\" in $2"
        sleep 0.05
    done
}

# Two keys of shared memory that nobody has.
free_key() {
    local key taken
    while :; do
        key=$((0x10000000 + SRANDOM % 0x60000000))
        taken=$(awk -v key=$key '$1 == key || $1 == key + 1' /proc/sysvipc/shm)
        [ -n "$taken" ] || break
    done
    echo $key
}
