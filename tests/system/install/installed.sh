#!/usr/bin/env bash
# Installs the packages, uses, upgrades, removes and purges them; one line for each check: PASS, FAIL with what
# was seen, or SKIP with the reason. Status 0 when none failed. Runs as root in a container that scripts/prove
# install has made and throws away, never elsewhere: it damages a log.
#
#   installed.sh FOLDER      which holds the packages, log_event, built with libmpu-dev, and what the test in
#                            debian/tests needs of the source
set -uo pipefail

folder=$1
cd /
export LC_ALL=C DEBIAN_FRONTEND=noninteractive SYSTEMD_PAGER= NO_COLOR=1
[ "$(systemd-detect-virt --container)" = systemd-nspawn ] || {
    echo "installed.sh: to be run in its container" >&2
    exit 2
}
all=(event-manager event-manager-catalog evctl evarchiver evbridge libmpu-dev)
users=(blade evarchiver evgate evweb evbridge)
units=(blade@0 evarchiver evgate evweb evbridge)
slot=/var/lib/blade/slot0
log=$slot/nvram/kelta_eventlog
archive=/var/lib/evarchiver/events.db
changed=(/etc/default/evarchiver /etc/event-manager/blade.conf /etc/default/blade /etc/default/blade-0)
work=$(mktemp -d /var/tmp/installedXXXX)
out=$work/out
chmod 0755 "$work"
passed=0 failed=0 skipped=0
# Behind a pipe no grep -q: who writes on when it has seen enough would fail.

# --- Checking

# check WHAT COMMAND...: functions end with their first failure, since they are chains of &&.
check() {
    local what=$1
    shift
    if "$@" >"$out" 2>&1; then
        passed=$((passed + 1))
        echo "PASS $what"
    else
        failed=$((failed + 1))
        echo "FAIL $what"
        tail -n 15 "$out" | cut -c -300 | sed 's/^/         /'
    fi
}
skip() {
    skipped=$((skipped + 1))
    echo "SKIP $1: $2"
}
finish() {
    echo "installed: $passed passed, $failed failed, $skipped could not be checked here"
    [ $failed -eq 0 ]
    exit
}
# is VALUE EXPECTED
is() { [ "$1" = "$2" ] || { echo "is '$1', not '$2'" && false; }; }
fails() { ! "$@"; }
# eventually COMMAND...: within 60 s, of which a slow machine may need many.
eventually() {
    local deadline=$((SECONDS + 60))
    until "$@" >"$out.try" 2>&1; do
        [ $SECONDS -lt $deadline ] || { cat "$out.try" && echo "waited in vain for: $*" && return 1; }
        sleep 0.1
    done
}
# silent COMMAND...: it succeeds and says nothing.
silent() {
    local said
    said=$("$@" 2>&1) && [ -z "$said" ] || { echo "$said" && false; }
}

property() { systemctl show --property="$2" --value "$1"; }
is_active() { is "$(property "$1" ActiveState)" active; }
has_failed() { is "$(property "$1" ActiveState)" failed; }
is_down() { is "$(property "$1" ActiveState)" inactive; }
said() { journalctl --quiet --unit="$1" --output=cat --no-pager; }
says() { said "$1" | grep -e "$2" >/dev/null; }
owner_and_mode() { is "$(stat -c '%U:%G %a' "$1")" "$2"; }
# What a file system holds beside what the system itself keeps about packages, logs and time.
files() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /mnt \
        -o -path /var/tmp -o -path /var/log/journal -o -path /var/lib/dpkg -o -path /var/lib/apt \
        -o -path /var/cache -o -path /root \) -prune -o -print |
        grep -v -e '^/var/log/\(dpkg\|apt\)' -e '^/etc/\(passwd\|shadow\|group\|gshadow\)-$' \
            -e '^/var/lib/\(systemd\|logrotate\)/' -e '^/etc/\.pwd\.lock$' | sort
}
# left_over BEFORE KEPT: what is there now and was not before, but for what matches.
nothing_left() {
    [ -s "$1" ] && files >"$work/now" && is "$(comm -13 "$1" "$work/now" | grep -v -x -E -e "$2")" ""
}

packages() { local name; for name in "$@"; do echo "$folder/${name}"_*.deb; done; }
apt() { apt-get -qq -o Dpkg::Use-Pty=0 -y --no-install-recommends "$@"; }
install() { apt install $(packages "$@"); }

# --- What is installed

installed_all() {
    local name
    for name in "${all[@]}"; do
        is "$(dpkg-query -W -f='${db:Status-Status}' "$name")" installed || return 1
    done
    silent dpkg --audit
}
made_user() {
    local entry
    entry=$(getent passwd "$1") && is "${entry##*:}" /usr/sbin/nologin && getent group "$1" &&
        [[ $(getent shadow "$1") == "$1":!* ]] && [ "$(id -u "$1")" -lt 1000 ]
}
# Files of the packages are root's, and nobody else may write them.
sound_files() {
    local found
    found=$(dpkg -L "${all[@]}" | sort -u | grep -v -x -e '/var/.*' | while read -r file; do
        [ -e "$file" ] && find "$file" -maxdepth 0 ! -type l \( ! -user root -o ! -group root -o -perm /6022 \)
    done)
    is "$found" ""
}
sound_directories() {
    owner_and_mode /var/lib/blade "blade:blade 750" && owner_and_mode /var/log/blade "blade:blade 750" &&
        owner_and_mode /var/lib/evarchiver "evarchiver:evarchiver 750" &&
        owner_and_mode $archive "evarchiver:evarchiver 640" &&
        owner_and_mode /var/lib/evbridge "evbridge:evbridge 750"
}
exposes_little() { systemd-analyze security --threshold=20 "$1.service" | tail -n 1 | tee "$out.exposure"; }
enabled() { is "$(systemctl is-enabled "$1")" "$2"; }

carried_test() (cd "$folder/source" && timeout 300 debian/tests/demo)

# --- Processes

processes() { cat "/sys/fs/cgroup/systemd$(property "$1" ControlGroup)/cgroup.procs" 2>/dev/null ||
    cat "/sys/fs/cgroup$(property "$1" ControlGroup)/cgroup.procs"; }
# confined UNIT USER COUNT: so many processes, all of that user, without any right or way to one.
confined() {
    local pid status count=0
    for pid in $(processes "$1.service"); do
        status=$(cat "/proc/$pid/status") && count=$((count + 1)) &&
            is "$(awk '$1 == "Uid:" {print $2, $3, $4, $5}' <<<"$status")" "$(printf "$(id -u "$2") %.0s" 1 2 3)$(id -u "$2")" &&
            is "$(awk '$1 == "CapEff:" || $1 == "CapBnd:" {print $2}' <<<"$status" | sort -u)" 0000000000000000 &&
            is "$(awk '$1 == "NoNewPrivs:" || $1 == "Seccomp:" {print $2}' <<<"$status" | xargs)" "1 2" || return 1
    done
    is $count "$3"
}

# --- The blade

blade_up() { systemctl start blade@0 && eventually blade_is_up || { said blade@0 | tail -n 12 && false; }; }
# Of this start: the time that it is up stands behind the unit's own.
blade_is_up() { journalctl --quiet --output=cat _SYSTEMD_INVOCATION_ID="$(property blade@0 InvocationID)" | grep 'blade: up:' >/dev/null; }
log_event() { timeout 60 evctl log --dir $slot/mmsg --source environ --category environmental --type error --id 8 --confirm=20 --text "$1"; }
holds() { evctl file list --json "$log" | grep -F "$1" >/dev/null; }
takes_event() { log_event "$1" && eventually holds "$1"; }
key_of_blade() { said blade@0 | sed -n 's/.*blade: up:.* key \(0x[0-9a-f]*\|[0-9]*\).*/\1/p' | tail -n 1; }
takes_from_program() {
    local answer
    answer=$(runuser -u blade -- "$folder/log_event" "$(key_of_blade)" "$1") && is "$answer" "in the log" && eventually holds "$1"
}
sound_log() { evctl file verify "$log" && owner_and_mode "$log" "$(stat -c '%U:%G %a' "$log" | sed 's/^[^ ]*/blade:blade/')"; }
# What had been listed before comes first now.
kept_events() { evctl file list --json "$log" | head -c "$(stat -c %s "$1")" | cmp - "$1"; }
survives_restart() {
    evctl file list --json "$log" >$work/before && systemctl restart blade@0 && eventually blade_is_up &&
        kept_events $work/before && takes_event "after the restart"
}
survives_kill() {
    evctl file list --json "$log" >$work/before &&
        systemctl kill --kill-whom=all --signal=KILL blade@0 && eventually blade_was_restarted &&
        eventually blade_is_up && kept_events $work/before && takes_event "after the kill"
}
blade_was_restarted() { [ "$(property blade@0 NRestarts)" -ge 1 ] && is_active blade@0; }
# In the middle of what is written: a start would find that record damaged when it reads it.
damage() {
    local event
    event=$(evctl file list --json "$log" | grep -n -m 1 -F "fan 3 stopped" | cut -d: -f1) && [ -n "$event" ] &&
        python3 -c '
import sys
with open(sys.argv[1], "r+b") as log:
    at = log.read().index(b"fan 3 stopped")
    log.seek(at - 100)
    log.write(b"x" * 100)' "$log"
}
guard_sets_aside() {
    systemctl stop blade@0 && damage && { evctl file predict "$log"; is $? 2; } && blade_up &&
        says blade@0 "kelta_eventlog.fatal-" && owner_and_mode "$(echo "$log".fatal-*)" "blade:blade $(stat -c %a "$log")" &&
        takes_event "after the guard" && holds "after the restart" && evctl file verify "$log"
}
# options_of VALUE FILE: BLADE_OPTIONS in a file of /etc/default, from the next start on.
options_of() { echo "BLADE_OPTIONS=\"$1\"" >>"/etc/default/$2" && systemctl reset-failed blade@0 && systemctl restart blade@0 && eventually blade_is_up; }
runs_with() { tr '\0' ' ' <"/proc/$(property blade@0 MainPID)/cmdline" | grep -F -e " $1 "; }
# What is said for its slot goes before what is said for all.
takes_options() {
    options_of "--timeout 45 --log-keep 2" blade && runs_with "--timeout 45 --log-keep 2" &&
        options_of "--archiver 127.0.0.1:4711" blade-0 && runs_with "--archiver 127.0.0.1:4711" && fails runs_with "--timeout"
}
logs_rotate() {
    logrotate --force /etc/logrotate.d/event-manager && is_active blade@0 &&
        eventually test -e /var/log/blade/emp-0.log && owner_and_mode /var/log/blade/emp-0.log "blade:blade 600" &&
        takes_event "after the rotation"
}

# --- The archive and who reads it

archived() { evctl archive events --db $archive --json | grep -F "$1" >/dev/null; }
archiver_files() {
    takes_event "$1" && evctl archiver set "$2" --dir $slot/mmsg && eventually archived "$1"
}
# Asking it as root leaves nothing that the archiver cannot use.
archive_is_its_own() {
    is "$(find /var/lib/evarchiver ! -user evarchiver -o ! -group evarchiver -o -perm /7)" "" &&
        systemctl stop evarchiver && archived "$1" && is "$(find /var/lib/evarchiver ! -user evarchiver)" "" &&
        systemctl start evarchiver && eventually says_listening evarchiver && archived "$1"
}
says_listening() { journalctl --quiet --output=cat _SYSTEMD_INVOCATION_ID="$(property "$1" InvocationID)" | grep 'listening on' >/dev/null; }
serves() { systemctl start "$1" && eventually says_listening "$1"; }
in_journal() { journalctl --quiet --no-pager --output=cat MESSAGE_ID=6f1d3c0a52b94b7ea3a1d0c6c74e8d21 | grep -c -F "$1"; }
# One that has another behind it: the newest is not certain yet.
bridge_hands_on() { archiver_files "behind it" 127.0.0.1:4711 && systemctl start evbridge && eventually in_journal "$1" && is_active evbridge; }
bridge_goes_on() {
    local before
    before=$(in_journal "$1") && systemctl restart evbridge && takes_event "$2" && takes_event "behind it" && eventually in_journal "$2" &&
        is "$(in_journal "$1")" "$before"
}
page_answers() {
    eventually curl -sSf http://127.0.0.1:8480/api/v1/events -o $work/events && grep -q -F "$1" $work/events &&
        curl -sSf http://127.0.0.1:8480/ | grep -i '<html' >/dev/null
}
page_cannot_write() {
    is "$(find /var/lib/evarchiver -user evweb)" "" && fails runuser -u evweb -- touch /var/lib/evarchiver/x
}

# certificate NAME USE: of the authority, as the pages tell it.
certificate() {
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$1" &&
        printf '%s\n' basicConstraints=critical,CA:FALSE "extendedKeyUsage=$2" "subjectAltName=DNS:$1.example" >"$1.ext" &&
        openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -days 365 -extfile "$1.ext" -out "$1.pem"
}
certificates() (
    mkdir -p $work/authority && cd $work/authority &&
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem -days 3650 -subj "/CN=event links" &&
        certificate archive serverAuth && certificate site clientAuth &&
        command install -d -g evgate -m 0750 /etc/evgate && command install -g evgate -m 0640 ./*.pem site.key archive.key /etc/evgate &&
        echo "DNS:site.example CHASSIS-*" >/etc/evgate/map
)
# The archive's end is the unit's; the site's, of another host, gets a copy of it.
gate_starts() {
    local files="--certificate /etc/evgate/END.pem --key /etc/evgate/END.key --ca /etc/evgate/ca.pem"
    echo "EVGATE_OPTIONS=\"archive --listen 4712 --to 127.0.0.1:4711 --map /etc/evgate/map ${files//END/archive}\"" >/etc/default/evgate &&
        echo "EVGATE_OPTIONS=\"site --listen 127.0.0.1:4713 --to 127.0.0.1:4712 --name archive.example ${files//END/site}\"" >/etc/default/evgate-site &&
        sed 's,default/evgate$,default/evgate-site,' /lib/systemd/system/evgate.service >/etc/systemd/system/evgate-site.service &&
        systemctl daemon-reload && serves evgate && serves evgate-site
}
gate_carries() { archiver_files "$1" 127.0.0.1:4713 && says evgate "linked, the other end is DNS:site.example"; }
gate_without_options_stays_down() {
    systemctl start evgate
    eventually has_failed evgate && is "$(property evgate NRestarts)" 0 && systemctl reset-failed evgate
}

# --- Upgrade, removal, purge

# The same packages under a higher version, of each other too.
newer() {
    local name tree
    mkdir "$work/newer"
    for name in "${all[@]}"; do
        tree=$work/newer/$name && dpkg-deb -R $(packages "$name") "$tree" &&
            sed -i 's/^Version: .*/&+1/; s/(= [^)]*/&+1/g' "$tree/DEBIAN/control" &&
            { [ "$name" != event-manager ] || sed -i 's/^Description=/&Newer /' "$tree/lib/systemd/system/blade@.service"; } &&
            dpkg-deb -Znone -b "$tree" "$tree.deb" || return 1
    done
}
# Alone, so that no other package's scripts tell the system of it.
brings_its_unit() {
    local blade
    blade=$(property blade@0 MainPID) && apt install $work/newer/event-manager.deb && is "$(property blade@0 MainPID)" "$blade" &&
        is "$(property blade@0 NeedDaemonReload)" no && property blade@0 Description | grep '^Newer '
}
# What shares a catalogue, or an archive, goes on together or not at all.
refuse_to_go_alone() {
    local name
    for name in "$@"; do
        fails apt install "$work/newer/$name.deb" && is "$(dpkg-query -W -f='${Version}' "$name")" \
            "$(dpkg-deb --field $(packages "$name") Version)" || return 1
    done
}
upgrade_keeps() {
    local blade archiver page bridge gate
    blade=$(property blade@0 MainPID) archiver=$(property evarchiver MainPID) page=$(property evweb MainPID) &&
        bridge=$(property evbridge MainPID) gate=$(property evgate MainPID) &&
        echo "# changed here" | tee -a "${changed[@]}" &&
        evctl file list --json "$log" >$work/before && apt install $work/newer/*.deb && installed_all &&
        is "$(property blade@0 MainPID)" "$blade" && kept_events $work/before && takes_event "after the upgrade" &&
        is "$(grep -l "changed here" "${changed[@]}" | wc -l)" ${#changed[@]} &&
        is_active evarchiver && fails is "$(property evarchiver MainPID)" "$archiver" &&
        is_active evweb && fails is "$(property evweb MainPID)" "$page" &&
        is_active evbridge && fails is "$(property evbridge MainPID)" "$bridge" &&
        is_active evgate && fails is "$(property evgate MainPID)" "$gate"
}
all_down() {
    local unit
    for unit in "${units[@]}"; do fails is_active "$unit" >/dev/null || { echo "$unit is active" && return 1; }; done
    for unit in "${users[@]}"; do is "$(grep -l -s "^Uid:[[:space:]]$(id -u "$unit")[[:space:]]" /proc/[0-9]*/status)" "" || return 1; done
}
no_programs() { is "$(ls /usr/sbin/emp /usr/sbin/msm /usr/sbin/blade /usr/sbin/ev* /usr/bin/ev* /lib/systemd/system/{blade,ev}* 2>/dev/null)" ""; }
kept_all() {
    cmp "$log" $work/log && cmp $archive $work/archive && is "$(grep -l "changed here" "${changed[@]}" | wc -l)" ${#changed[@]}
}
removal() {
    apt remove "${all[@]}" && all_down && no_programs
}
stopped_copies() { systemctl stop blade@0 evarchiver evgate-site && cp "$log" $work/log && cp $archive $work/archive; }
purged() { apt purge "$@"; }

# --- The run

systemctl is-system-running --wait >/dev/null

files >$work/bare
check "the packages install" install "${all[@]}"
check "each is configured" installed_all
[ $failed -eq 0 ] || finish
check "purging all, unused" purged "${all[@]}"
check "nothing is left of them" nothing_left "$work/bare" '-'
check "they install again" install "${all[@]}"
for user in "${users[@]}"; do check "user $user: no login, no password" made_user "$user"; done
check "files are root's and nobody else writes them" sound_files
check "directories have their owners and modes" sound_directories
for unit in "${units[@]}"; do check "systemd-analyze verify ${unit/0/}" silent systemd-analyze verify --man=no "/lib/systemd/system/${unit/0/}.service"; done
for unit in "${units[@]}"; do check "systemd-analyze security $unit: at most 2.0" exposes_little "$unit"; done

check "evarchiver runs once it is installed" eventually says_listening evarchiver
check "evarchiver has no rights" confined evarchiver evarchiver 1
check "evarchiver is enabled" enabled evarchiver enabled
for unit in evgate evweb evbridge; do
    check "$unit waits for its operator" is_down $unit
    check "$unit is not enabled" enabled $unit disabled
done

check "the test that the packages carry, the demo, passes" carried_test
check "blade@0 is enabled" eval 'systemctl enable blade@0 && enabled blade@0 enabled'
check "blade@0 starts" blade_up
[ $failed -eq 0 ] || is_active blade@0 >/dev/null || finish
check "its three processes have no rights" confined blade@0 blade 3
check "it takes an event" takes_event "fan 3 stopped"
check "it takes one of a program that was built with libmpu-dev" takes_from_program "fan 4 stopped"
check "its log is sound and the blade's" sound_log
check "the log survives a restart" survives_restart
check "the log survives a kill of all, and the unit starts again" survives_kill
check "a fatal log is set aside, and what is readable of it kept" guard_sets_aside
check "its output is rotated" logs_rotate

check "the blade's options come from /etc/default" takes_options
check "evarchiver files what a blade forwards that was started so" eval 'takes_event "by its options" && eventually archived "by its options"'
check "evarchiver files what the blade forwards" archiver_files "for the archive" 127.0.0.1:4711
check "the archive stays its own, whoever reads it" archive_is_its_own "for the archive"
check "evbridge hands on to the journal" bridge_hands_on "for the archive"
check "evbridge has no rights" confined evbridge evbridge 1
check "evweb starts" serves evweb
check "evweb shows the event" page_answers "for the archive"
check "evweb has no rights" confined evweb evweb 1
check "evweb cannot write the archive" page_cannot_write

check "evgate that was not set up ends, and is not tried again" gate_without_options_stays_down
check "certificates are made" certificates
check "evgate starts at both ends" gate_starts
check "evgate has no rights" confined evgate evgate 1
check "evgate carries an event to the archive" gate_carries "through the gate"
check "evbridge goes on where it was" bridge_goes_on "for the archive" "after the bridge"

check "newer packages are made" newer
check "evctl, evarchiver and evbridge are not upgraded without what they share" refuse_to_go_alone evctl evarchiver evbridge
check "a newer event-manager brings its unit along, and leaves the blade alone" brings_its_unit
check "an upgrade keeps log, configuration and the running blade, and renews the rest" upgrade_keeps
check "evctl is removed: the blade starts without its guard" eval 'apt remove evctl && systemctl restart blade@0 && eventually blade_is_up && apt install $work/newer/evctl.deb'
check "blade and archiver end" stopped_copies
check "the rest is removed while it runs" removal
check "events and configuration are kept" kept_all
check "they install again over them" install "${all[@]}"
check "the blade goes on with its log" eval 'blade_up && holds "after the upgrade" && takes_event "after all"'
check "the archive goes on, and gets what it had missed" eval 'archiver_files "at last" 127.0.0.1:4711 && archived "after the upgrade" && archived "for the archive"'
check "all are purged while they run" purged "${all[@]}"
check "all have ended" all_down
events='/var/lib/blade|/var/lib/blade/slot0(/nvram(/kelta_eventlog.*)?)?|/var/lib/evarchiver(/events\.db)?'
made_here='/etc/evgate(/.*)?|/etc/default/evgate-site|/etc/systemd/system/evgate-site\.service'
check "events stay, nothing else" nothing_left "$work/bare" "$events|$made_here"
check "the log that stays is sound" test -s "$log"

finish
