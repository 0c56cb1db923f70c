# The proof of the packages: they are installed in a container that has booted systemd, see
# tests/system/install/installed.sh. Bash, read with "source" by scripts/prove.

# What the container has beside a Debian that boots and what the packages depend on: the checks use it.
container_programs=systemd,systemd-sysv,curl,logrotate,openssl,procps,python3

# needed_by DEB...: what they depend on, of several possible packages the first, without each other.
needed_by() {
    local deb own
    own=$(for deb in "$@"; do dpkg-deb --field "$deb" Package; done)
    for deb in "$@"; do dpkg-deb --field "$deb" Pre-Depends Depends; done |
        sed 's/^[A-Za-z-]*: //; s/([^)]*)//g' | tr ',' '\n' | sed 's/|.*//; s/[ \t]//g; /^$/d' | sort -u |
        grep -vxF "$own" | paste -sd,
}

# container_root DEB...: a root of Debian 12 that has all but the packages, kept for further proofs; where it is.
container_root() {
    local include root
    include=$container_programs,$(needed_by "$@")
    root=$PWD/build/prove/root-$(md5sum <<<"$include" | cut -c -12)
    if [ ! -d "$root" ]; then
        rm -rf "$PWD"/build/prove/root-*
        mkdir -p "$root.new"
        timeout 900 mmdebstrap --quiet --variant=minbase --include="$include" bookworm "$root.new" >&2
        mv "$root.new" "$root"
    fi
    printf '%s\n' "$root"
}

# The container: its supervisor, its first process, and a folder that both sides see.
supervisor= container= shared=

inside() { nsenter --target "$container" --all -- "$@"; }
is_up() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null; }

# wait_for SECONDS COMMAND...
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}

# Its first process takes all others with it; the supervisor then takes away what it had mounted.
end_container() {
    local status=$?
    trap - EXIT
    is_up "$container" && kill -KILL "$container"
    [ -z "$supervisor" ] || wait_for 20 eval "! is_up $supervisor" || kill -KILL "$supervisor"
    rmdir "/run/systemd/nspawn/propagate/${shared##*/}" 2>/dev/null || true
    rm -rf "$shared"
    exit $status
}

has_started() {
    is_up "$supervisor" || return 0
    container=$(pgrep --parent "$supervisor" | head -n 1)
    [ -n "$container" ] && inside test -S /run/systemd/private
}
# Its own network has the loopback alone; what is written goes to memory, not to the root.
start_container() {
    local group=()
    # Where no systemd gives it control groups of its own it takes those at hand.
    [ -d /run/systemd/system ] || group=(--keep-unit)
    systemd-nspawn --quiet --directory="$1" --volatile=overlay --machine="${shared##*/}" --register=no \
        "${group[@]}" --private-network --console=pipe --bind="$shared:/mnt" --boot \
        >"$shared/console" 2>&1 </dev/null &
    supervisor=$!
    disown
    wait_for 60 has_started && is_up "$supervisor" && is_up "$container" || {
        cat "$shared/console" >&2
        echo "prove: install: systemd-nspawn boots no systemd on this machine: nothing was checked" >&2
        exit 1
    }
}

# example DEB...: a program that was built with the library's package, into the shared folder.
example() {
    local deb
    for deb in "$@"; do
        [[ $deb != *libmpu-dev_* ]] || dpkg-deb --extract "$deb" "$shared/library"
    done
    gcc -static -I "$shared/library/usr/include/mpu" -o "$shared/log_event" \
        "$shared/library/usr/share/doc/libmpu-dev/examples/log_event.c" "$shared"/library/usr/lib/*/libmpu.a
}

prove_install() {
    local packages=("$@") root
    scripts/setup install
    if [ ${#packages[@]} -eq 0 ]; then
        timed "making the packages" scripts/package deb
        packages=(build/package/*.deb)
    fi
    trap end_container EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    shared=$(mktemp -d /tmp/proveXXXXXX)
    chmod 0755 "$shared"
    mapfile -t packages < <(printf '%s\n' "${packages[@]}" | grep -v -e '-dbgsym_')
    cp "${packages[@]}" tests/system/install/installed.sh "$shared"
    mkdir "$shared/source"
    cp -r --parents LICENSE debian/tests demo scripts share "$shared/source"
    example "${packages[@]}"
    root=$(container_root "${packages[@]}")
    # One at a time: without control groups of its own a container's units would be another's, too.
    exec 3>/run/lock/prove-install
    flock --wait 900 3 || { echo "prove: install: another one runs" >&2 && exit 1; }
    start_container "$root"
    # Waited for, so that a signal need not wait.
    timeout --signal=KILL 900 nsenter --target "$container" --all -- bash /mnt/installed.sh /mnt &
    wait $!
}
