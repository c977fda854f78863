#!/usr/bin/env bash
# A service that is killed comes back with what it had. One whose file of the state fails says so, and runs on.
. "$(dirname "$0")/service.sh"
source=239.77.0.1:4000
mkdir state

start_with_state() {
    start_service --state "${1:-$work/state}"
}
state() { # JQ-free: the part of the view that tells of the state
    "$pccast" status --json | grep -o '"state":{[^}]*}'
}

# ---- a restart
start_with_state
early=$("$pccast" relay $source 239.77.0.2:5000 --epg 1 --for 1h)
before=$(spent)
sleep 1.1
[ $(($(spent) - before)) -lt 30 ] || fail "in a second of rest the service took $(($(spent) - before)) hundredths"
"$pccast" relay $source 239.77.0.3:5001 --epg 2 --for 1h
stopped=$("$pccast" relay $source 239.77.0.3:5001 --epg 3 --start +1h)
"$pccast" stop "$stopped"
"$pccast" relay $source 239.77.0.3:5001 --epg 4 --start +20s --for 1s
over=$(($(date +%s) + 22))
"$pccast" relay $source 239.77.0.3:5001 --epg 5 --start +1h
"$pccast" message "Fire drill" --repeat 9 --epg 6
within 5 prints '"epg":2,.*"from":' "$pccast" history --json
within 5 prints '"broadcasts":1' "$pccast" history --json
"$bin/pccast-feed" --loop "$samples/sample.ts" $source >feed.log 2>&1 &
"$pccast" receive 239.77.0.3:5001 received --datagrams 100000 --wait 20s >receive.log 2>&1 &
within 5 prints '"datagrams":[1-9]' "$pccast" history --json --epg 2
kill -KILL "$service"
wait "$service" || true
sleep $((over - $(date +%s)))

before=$(date +%s%N)
start_with_state
within 5 grep -q 'audit: started relay 2:' serve.log
took=$((($(date +%s%N) - before) / 1000000))
echo "back on air ${took} ms after the start of the new process"
[ "$took" -lt 1000 ] || fail "the relay came back after $took ms"
grep -q 'audit: expired relay 4:.*while the service was down' serve.log || fail "nothing was said of what expired"
grep -q 'audit: restored 4 of 4 requests' serve.log || fail "not what was living: $(grep restored serve.log)"
! grep -q 'audit: started relay 1:' serve.log || fail "the older relay was on air before the newer one"
"$pccast" list --json >list
for pattern in '"place":"waiting".*"epg":1,' '"place":"on-air".*"epg":2,' '"place":"waiting".*"epg":5,' \
    '"repeats_left":[78],.*"epg":6,'; do
    grep -q "$pattern" list || fail "$pattern is not in: $(cat list)"
done
! grep -q '"epg":3,' list || fail "what was stopped has come back"
"$pccast" history --json --epg 2 >history
[ "$(wc -l <history)" -eq 2 ] && grep -q '"event":"interrupted"' history || fail "the history: $(cat history)"

# A clean end and a start: what was preempted comes back to its turn.
end_service TERM
start_with_state
"$pccast" receive 239.77.0.2:5000 caught --idle 2s 2>caught.log &
catcher=$!
asked=$(date +%s)
"$pccast" stop "$("$pccast" list --json | sed -n 's/.*"epg":2,"identity":"\([^"]*\)".*/\1/p')"
within 5 grep -q "audit: started relay ${early%%:*}:" serve.log
started=$(date +%s)
within 5 test -s caught
[ "$("$pccast" history --epg 2 --csv | tail -n +2 | cut -d, -f7,8 | paste -sd' ')" = "interrupted, ended,closing ended,stop" ] ||
    fail "$("$pccast" history --epg 2 --csv)"
end_service TERM
"$pccast" history --state "$work/state" --json >history
[ "$(wc -l <history)" -ge 6 ] || fail "the file alone gives no history"
# What the history says is what went over the network.
wait $catcher
caught=$(sed -n 's/^pccast: \([0-9]*\) datagrams received.*/\1/p' caught.log)
read -r from datagrams < <(grep '"epg":1,' history | tail -n 1 |
    sed -E 's/.*"from":([0-9]+).*"datagrams":([0-9]+).*/\1 \2/')
[ "$datagrams" -eq "$caught" ] && [ "$from" -ge "$asked" ] && [ "$from" -le "$started" ] ||
    fail "caught $caught from $asked to $started: $(grep '"epg":1,' history)"
refused 69 'no service answers' "$pccast" history
refused 66 'unable to open' "$pccast" history --state /nowhere

# ---- faults: each is said once, the service takes requests, and the view tells
runs_on() { # PATTERN
    "$pccast" relay $source 239.77.0.4:5004 --epg 20 --start +1h --for 10s >/dev/null 2>&1
    within 8 grep -q "audit: NOTHING IS KEPT: .*$1" serve.log
    within 5 prints '"epg":20,' "$pccast" list --json
    within 5 prints "\"ok\":false,\"error\":\".*$1" state
    prints "NOTHING IS KEPT: .*$1" "$pccast" status
    [ "$(grep -c 'NOTHING IS KEPT' serve.log)" -eq 1 ] || fail "said more than once: $1"
}
mended() {
    within 8 grep -q 'the state is kept again' serve.log
    within 5 prints '"ok":true,"behind":0' state
    end_service TERM
    [ "$(sqlite3 "$1/pccast.db" 'SELECT count(*) FROM request WHERE epg = 20')" -gt 0 ] || fail "$1 is not made up for"
}
command -v sqlite3 >/dev/null || { echo "sqlite3 is not installed: the faults are left out"; exit 0; }

mkdir small
mount -t tmpfs -o size=200k small small
start_with_state "$work/small"
within 5 prints '"ok":true' state
dd if=/dev/zero of=small/filler bs=1k 2>dd.log || true
"$pccast" message "$(printf '%060000d' 0)" --epg 21 --start +1h >/dev/null 2>&1
runs_on 'full'
rm small/filler
mended small
umount small

start_with_state
mkfifo orders
sqlite3 state/pccast.db <orders >locker.log 2>&1 &
locker=$!
exec 9>orders
echo 'BEGIN EXCLUSIVE; SELECT 1;' >&9
within 5 grep -q 1 locker.log
before=$(date +%s%N)
"$pccast" relay $source 239.77.0.4:5004 --epg 22 --start +1h >/dev/null 2>&1
[ $((($(date +%s%N) - before) / 1000000)) -gt 500 ] || fail "a request was confirmed before it was in the file"
runs_on 'locked'
exec 9>&-
wait $locker
mended state

printf 'no database at all, and longer than a header of one would be: %0200d' 0 >state/pccast.db
start_with_state
grep -q 'pccast.db is damaged (file is not a database): moved to .*corrupt-' serve.log || fail "nothing said of the damage"
[ "$(head -c 11 state/pccast.db.corrupt-*Z)" = 'no database' ] || fail "the damaged file was changed"
prints '"ok":true' state || fail "no new file was begun"
end_service TERM

sqlite3 state/pccast.db 'PRAGMA user_version = 99; PRAGMA wal_checkpoint(TRUNCATE)' >/dev/null
md5sum state/pccast.db >before
start_with_state
runs_on 'newer version'
end_service TERM
refused 66 'newer version' "$pccast" history --state state
md5sum --quiet -c before || fail "a newer file was changed"

# ---- the service manager
command -v python3 >/dev/null || { echo "python3 is not installed: the notices are left out"; exit 0; }
rm -r state && mkdir state
python3 -uc 'import socket
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind("notices")
while True: print(repr(s.recv(4096).decode()))' >notices.log &
within 5 test -e notices
export NOTIFY_SOCKET=$work/notices WATCHDOG_USEC=600000
start_with_state
within 5 counted 3 WATCHDOG=1 notices.log
end_service TERM
[ "$(grep -c READY=1 notices.log)" -eq 1 ] && prints STOPPING=1 tail -n 1 notices.log || fail "notices: $(cat notices.log)"
