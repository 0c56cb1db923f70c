# What the scripts share; bash, read with "source". Not to be run by itself.

# usage_error TEXT: a wrong command line ends with 2.
usage_error() {
    printf '%s: %s\nTry "%s --help".\n' "${0##*/}" "$1" "$0" >&2
    exit 2
}

# help_of FILE: the comment at the head of a script is its help.
help_of() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$1"; }

# throttle PATTERN DROP: copies its input; of the lines that match PATTERN (how far it is) one every five
# seconds, of those that match DROP none. Reads to the end whatever happens, so it never stops a builder.
throttle() {
    local line next=$SECONDS
    while IFS= read -r line || [ -n "$line" ]; do
        if [[ $line =~ $1 ]]; then
            [ "$SECONDS" -ge "$next" ] || continue
            next=$((SECONDS + 5))
        elif [[ $line =~ $2 ]]; then
            continue
        fi
        printf '%s\n' "$line"
    done
}

# timed WHAT COMMAND...: says what begins, and how long it took.
timed() {
    local what=$1 start=$SECONDS
    shift
    printf '%s: %s\n' "${0##*/}" "$what"
    "$@"
    printf '%s: %s: done in %d s\n' "${0##*/}" "$what" $((SECONDS - start))
}

configure() { cmake --preset "$1" -DCMAKE_MESSAGE_LOG_LEVEL=WARNING >/dev/null; }

# build PRESET [ARGUMENTS...]: configures and builds; Ninja's own status line on a terminal.
build() {
    local preset=$1
    shift
    configure "$preset"
    export NINJA_STATUS='[%f/%t, %e s] '
    if [ -t 1 ]; then
        cmake --build --preset "$preset" "$@"
    else
        cmake --build --preset "$preset" "$@" | throttle '^\[[0-9]+/[0-9]+, ' '^$'
    fi
}
