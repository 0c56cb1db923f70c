# scripts/demo fleet: one archive for many blades. A database and its standby, two archivers, twelve
# simulated blades and two real ones; an archiver is killed, then the database. At the end every event of
# every blade is looked up in the archive, byte for byte. Not to be run by itself.
set -euo pipefail
source "$(dirname "$0")/common.sh"
source "$(dirname "$0")/demo_common.sh"
cd "$(dirname "$0")/.."

# A folder that has the programs already, for the tests.
bin=${DEMO_BIN:-$PWD/build/demo}
if [ -z "${DEMO_BIN:-}" ]; then
    scripts/setup demo-fleet
    timed "building" build demo --target emp msm blade evctl evarchiver evfleet evweb
fi
began=$SECONDS

# Short: sockets lie below it, and a socket's path has at most 107 characters.
base=$(mktemp -d /tmp/fleetXXXXXX)
chmod 711 "$base"
export EVENT_MANAGER_CATALOG=$PWD/share/event-manager/catalog.d:$PWD/demo/catalog.d
primary= standby= first= second= blade0= blade1= fleet= page= page_at=

# Database servers are not for root.
pg_bin=$(printf '%s\n' /usr/lib/postgresql/*/bin | sort -V | tail -n 1)
as_server=()
[ "$(id -u)" -ne 0 ] || as_server=(setpriv --reuid=postgres --regid=postgres --clear-groups)
server_log=/dev/null

# stop_server SIGNAL PID DIRECTORY: KILL ends its children as well, and leaves a scrap of shared memory.
stop_server() {
    is_up "$2" || return 0
    local scrap
    scrap=$(awk 'NR == 7 {print $2}' "$3/data/postmaster.pid" 2>/dev/null || true)
    if [ "$1" = KILL ]; then
        kill -KILL "$2" $(pgrep -P "$2") 2>/dev/null || true
    fi
    stop "$1" "$2" 2>/dev/null # or the shell tells of it
    [ "$1" != KILL ] || [ -z "$scrap" ] || ipcrm -m "$scrap" 2>/dev/null || true
}

finish() {
    status=$?
    trap - EXIT
    [ $status -eq 0 ] || tail -n 5 "$base"/*.log "$base"/slot?/log/*.log >&2 2>/dev/null || true
    stop TERM $page $fleet $first $second $blade0 $blade1
    stop_server QUIT "$primary" "$base/db0"
    stop_server QUIT "$standby" "$base/db1"
    rm -rf "$base"
    exit $status
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# start_server DIRECTORY: sets "server" to its process.
start_server() {
    "${as_server[@]}" "$pg_bin/postgres" -D "$1/data" -k "$1" -c listen_addresses= -c wal_keep_size=64 \
        -c max_connections=40 -c dynamic_shared_memory_type=mmap >>"$1.log" 2>&1 </dev/null &
    server=$!
    wait_for 60 psql -X -q -h "$1" -U postgres -d postgres -c "SELECT 1"
}
server_directory() {
    mkdir "$1"
    [ "$(id -u)" -ne 0 ] || chown postgres: "$1"
    chmod 755 "$1"
    : >"$1.log"
}
db=$base/db0
sql() { psql -X -q -A -t -h "$db" -U postgres -d postgres -c "$1"; }
events() { sql "SELECT count(*) FROM events"; }
has_events() { [ "$(events)" -ge "$1" ]; }
waits_for_standby() { [ "$(sql 'SELECT sync_state FROM pg_stat_replication')" = sync ]; }

cat <<END

Blades log events; each blade's event manager (emp) sends what it logs to an archiver, and goes on if there is none.
Archivers file the events in a PostgreSQL database. Here an archiver and then the database are killed while events
come in. At the end every event of every blade is looked up in what is left.
END
say "A database and its standby, a copy on another server: no commit counts before both have it"
server_directory "$base/db0"
"${as_server[@]}" "$pg_bin/initdb" --auth=trust --username=postgres --encoding=UTF8 --locale=C -D "$base/db0/data" \
    >"$base/db0.log"
start_server "$base/db0"
primary=$server
server_directory "$base/db1"
"${as_server[@]}" "$pg_bin/pg_basebackup" -h "$base/db0" -U postgres -D "$base/db1/data" --checkpoint=fast \
    --write-recovery-conf -d application_name=standby >"$base/db1.log"
start_server "$base/db1"
standby=$server
sql "ALTER SYSTEM SET synchronous_standby_names = 'standby'" && sql "SELECT pg_reload_conf()" >/dev/null
wait_for 30 waits_for_standby
# One place with two hosts: whichever can be written is taken.
place="postgresql:///postgres?user=postgres&host=$base/db0,$base/db1"
"$bin/evarchiver" db create --db "$place" --retention-days 30
"$bin/evarchiver" db check --db "$place"

say "Two archivers; they keep nothing of their own, so it does not matter which one a blade reaches"
address=127.$((RANDOM % 250 + 2)).$((RANDOM % 250 + 2)).1
# start_archiver NAME PORT: sets "archiver" and "port".
start_archiver() {
    : >"$base/$1.log"
    "$bin/evarchiver" --listen "$address:$2" --db "$place" --progress 0 >"$base/$1.log" 2>&1 &
    archiver=$!
    says "$archiver" "$base/$1.log" "listening on .*:[0-9]"
    port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' "$base/$1.log")
}
start_archiver first 0
first=$archiver first_port=$port
start_archiver second 0
second=$archiver second_port=$port
echo "they listen on $address, ports $first_port and $second_port"
if [ -x "$bin/evweb" ] && [[ $("$bin/evweb" --help) == *postgresql:* ]]; then
    : >"$base/page.log"
    "$bin/evweb" --db "$place" --listen "$address:0" >"$base/page.log" 2>&1 &
    page=$!
    says "$page" "$base/page.log" "listening on .*:[0-9]"
    page_at=$(sed -n 's|.*listening on \(.*:[0-9]*\)$|http://\1|p' "$base/page.log")
    echo "a page shows the archive in a browser until this ends: $page_at"
else
    echo "(the page that shows all this is not built here)"
fi

say "Two blades with a real event manager, one at each archiver, and twelve simulated ones, at either"
key=$(free_key)
start_blade() {
    : >"$base/blade$1.log"
    "$bin/blade" demo/blade.conf --base "$base" --slot "$1" --other $((1 - $1)) --key $((key + $1)) --keep \
        --set "SerialNumber=BLADE-000$1" >"$base/blade$1.log" 2>&1 &
    says $! "$base/blade$1.log" "up:"
}
start_blade 0
blade0=$!
start_blade 1
blade1=$!
evctl() { "$bin/evctl" "$@"; }
# log_on SLOT COUNT TEXT
log_on() { evctl log --dir "$base/slot$1/mmsg" --source iomgr8p --category io --id 9 --count "$2" --text "$3"; }
evctl archiver set "$address:$first_port" --dir "$base/slot0/mmsg"
evctl archiver set "$address:$second_port" --dir "$base/slot1/mmsg"
for slot in 0 1; do log_on $slot 50 "all is well"; done
"$bin/evfleet" --to "$address:$first_port" --to "$address:$second_port" --blades 12 --events 600 --rate 50 \
    --size 0:400 --outages 1 --reconnect 300 --settle 60 --check "$place" --progress 0 >"$base/fleet.log" 2>&1 &
fleet=$!
wait_for 60 has_events 1200
echo "$(events) events are in the archive, some 600 a second more are coming"

say "The first archiver is killed (SIGKILL, process $first); simulated blades go to the other one by themselves"
kill -KILL "$first" && wait "$first" 2>/dev/null || true
first=
echo "$(events) events are in the archive"
log_on 0 50 "the archiver is away"
wait_for 60 has_events 2500
echo "$(events) events are in the archive: the other archiver alone goes on filing"
start_archiver first "$first_port"
first=$archiver
# Each message is a pass of the loop, so this many bring the blade's reconnect timer (300 s) round.
log_on 0 310 "the archiver is back"
echo "it was started again, and its blade has come back to it: $(events) events"

say "The database is killed (SIGKILL, process $primary), its standby takes its place; archivers are not told"
committed=$(events)
echo "$committed events are committed"
stop_server KILL "$primary" "$base/db0"
primary=
for slot in 0 1; do log_on $slot 50 "the database is away"; done
db=$base/db1
wait_for 30 has_events "$committed"
echo "the standby has all of these"
sql "ALTER SYSTEM SET synchronous_standby_names = ''" 2>/dev/null || true
sql "SELECT pg_promote(true, 30)" >/dev/null
sql "ALTER SYSTEM SET synchronous_standby_names = ''" && sql "SELECT pg_reload_conf()" >/dev/null
echo "it takes events now, $(events) so far"
for slot in 0 1; do log_on $slot 310 "the other database has taken over"; done

say "The simulated blades end (their links had also been cut on purpose), and look up every event of theirs"
ended=0
wait "$fleet" || ended=$?
fleet=
cat "$base/fleet.log"
[ $ended -eq 0 ] || fail "the simulated blades miss events"

say "Every event in the logs of the two real blades is looked up"
# What a log and the archive say of each event: id, time, source, type, category, event, version, data.
logged() {
    evctl file list --json "$base/slot$1/nvram/kelta_eventlog" | python3 -c '
import json, sys
for line in sys.stdin:
    e = json.loads(line)
    if "sequenceId" in e:
        print(*[e[k] for k in ("sequenceId", "seconds", "source", "type", "category", "id", "idVersion", "data")],
              sep="|")' | sort
}
archived() {
    sql "SELECT id, extract(epoch FROM time)::bigint, source, type, category, event, idversion, encode(data, 'hex')
         FROM event_list WHERE blade = 'BLADE-000$1' AND newest" | sort
}
missing() { comm -23 <(logged "$1") <(archived "$1"); }
is_whole() { [ -n "$(logged "$1")" ] && [ -z "$(missing "$1")" ]; }
for slot in 0 1; do
    wait_for 60 is_whole $slot
    echo "BLADE-000$slot: $(logged $slot | wc -l) events in its log, all of them in the archive with the same bytes"
done
twice=$(sql "SELECT count(*) - count(DISTINCT (log, generation, id)) FROM events")
[ "$twice" = 0 ] || fail "$twice events are held twice"
[ -z "$page_at" ] || python3 - "$page_at" <<'END'
import json, sys, urllib.request
logs = json.load(urllib.request.urlopen(sys.argv[1] + "/api/v1/logs", timeout=30))["logs"]
print("the page shows", len(logs), "blades, with", sum(log["missing"] or 0 for log in logs), "events missing between others")
END
is_up "$(pgrep -P "$blade0" -x emp)" && is_up "$(pgrep -P "$blade1" -x emp)" || fail "an event manager has died"

say "What was lost"
cat <<END
Nothing. An archiver and the database were killed without a warning. Of what the fourteen blades have logged before,
meanwhile and since, every single event is in the archive, once, byte for byte: $(events) in all.
Both event managers have run through; all that they noticed was links that ended. Nobody told the archivers anything:
$(grep -h -o -e "[^;]*events wait, tried again" -e "the archive can be written again" "$base/first.log" \
    "$base/second.log" | sed 's/^ */    an archiver said: /' | sort -u)
It took $((SECONDS - began)) s.
END
