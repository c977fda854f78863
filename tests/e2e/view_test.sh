#!/usr/bin/env bash
# What the view tells: each request with its place, the events in order, answers as the schema has them. A hostile
# client harms nobody.
command -v curl >/dev/null && command -v python3 >/dev/null || exit 77
. "$(dirname "$0")/service.sh"
schema=$here/../../docs/view.schema.json
view=/tmp/PCVIEW.uds

get() { # PATH: the answer's body
    curl -sS --max-time 40 --unix-socket $view "http://localhost$1"
}

placed() { # EPG PLACE: list has the request there
    prints "\"place\":\"$2\"[^{}]*\"epg\":$1," "$pccast" list --json
}

# events_of EPG...: what has happened to these programmes, a word for each event.
events_of() {
    "$pccast" events --json >events.log
    local pattern
    pattern=$(IFS='|'; echo "$*")
    grep -E "\"epg\":($pattern),\"identity\":\"[^\"]*\",\"created\"" events.log |
        sed -E 's/.*"event":"([a-z]+)".*"epg":([0-9]+),"identity":"[^"]*","created".*/\1-\2/' | tr '\n' ' '
}

# conforms FILE...: the answers are as the schema says; without the package that checks it, nothing is checked.
conforms() {
    python3 -c 'from jsonschema import Draft202012Validator' 2>/dev/null || return 0
    python3 - "$schema" "$@" <<'END' || fail "an answer is not as docs/view.schema.json has it"
import json, sys
from jsonschema import Draft202012Validator
schema = json.load(open(sys.argv[1]))
Draft202012Validator.check_schema(schema)
for name in sys.argv[2:]:
    Draft202012Validator(schema).validate(json.load(open(name)))
END
}

refused 69 "no service answers at $view; start one with: pccast serve" "$pccast" list
echo mine >$view
refused 69 'is there and is no socket; it is left alone' "$pccast" serve
rm $view
python3 -c "import socket; socket.socket(socket.AF_UNIX).bind('$view')" # nobody listens there any more

umask 0
start_service
umask 022
[ "$(stat -c %a $view)" = 600 ] || fail "the socket file has mode $(stat -c %a $view)"
refused 0 'nothing is on air and nothing waits' "$pccast" list

# A relay goes on air, a newer one takes its place and is stopped, the older one returns. A file waits all the time.
key=000102030405060708090a0b0c0d0e0f
first=$("$pccast" relay 239.77.0.1:4000 239.77.0.2:5000 --epg 1 --key $key)
within 5 placed 1 on-air
"$pccast" file "$samples/sample.ts" --to 239.77.0.3:5000 --epg 3
"$pccast" message $'Fire\e[2J \xff' --repeat 0 --epg 4
sleep 1.1 # a request of the same second would wait
second=$("$pccast" relay 239.77.0.1:4001 239.77.0.2:5001 --epg 2 --end +1h)
within 5 placed 2 on-air
get /v1/view >view.json
get /v1/events >events.json
grep -q '"encrypted":true' view.json || fail "the view hides that a cast is decrypted"
! grep -q -i -e "$key" -e 'encryption_\?key' view.json events.json || fail "a key is told"
grep -q '"text":"Fire\\u001b\[2J \\ufffd","text_bytes":10' view.json || fail "the message's text is not told"
"$pccast" stop "$second"
within 5 placed 1 on-air
[ "$(events_of 1 2 | sed 's/silent-[12] //g')" = \
    "filed-1 started-1 filed-2 preempted-1 started-2 filed-2 ended-2 done-2 returned-1 " ] ||
    { cat events.log; fail "the events are $(events_of 1 2)"; }
within 5 grep -q "^pccast: audit: preempted relay $first  for relay $second, 0 datagrams" serve.log
grep -q '^pccast: audit: current message .* "Fire\\x1b\[2J \\xff" until' serve.log || fail "a text steers the terminal"

# Silence is said once, and how long it was.
within 5 grep -q "^pccast: audit: silent relay $first  silent since" serve.log
sleep 2
KTNET_MULTICAST_IF=lo "$bin/pccast-feed" "$samples/sample.ts" 239.77.0.1:4000 40
within 5 grep -q "^pccast: audit: heard relay $first  heard again after [2-9] s" serve.log

get '/v1/events?after=x' >error.json
get '/v1/events?after=1000000&wait=30' >ahead.json # a number of another run: no wait
conforms view.json events.json error.json ahead.json

# Who waits is told at once; the number after it is the next one.
within 5 counted 3 "^pccast: audit: silent relay $first" serve.log
get '/v1/events?after=1000000' >ahead.json
last=$(sed -E 's/.*"last":([0-9]+).*/\1/' ahead.json)
get "/v1/events?after=$last&wait=30" >waited.json &
waiter=$!
before=$(spent)
sleep 0.5
[ $(($(spent) - before)) -lt 20 ] || fail "to wait took $(($(spent) - before)) hundredths of a second"
SECONDS=0
"$pccast" cancel "$("$pccast" message later --start +1h --epg 5 --priority)"
wait $waiter
[ $SECONDS -lt 3 ] && grep -q "\"number\":$((last + 1))," waited.json || fail "waited: $(cat waited.json)"
crowd() { # more readers than may wait at once; an event that comes meanwhile answers them all, so try again then
    local last
    last=$(get '/v1/events?after=1000000' | sed -E 's/.*"last":([0-9]+).*/\1/')
    for _ in $(seq 40); do
        curl --unix-socket $view -so /dev/null -w '%{http_code}\n' "http://localhost/v1/events?after=$last&wait=5" >>codes &
    done
    sleep 0.5
    grep -q '^503$' codes
}
within 9 crowd

# Silent, slow, noisy and endless clients, while the view answers as ever.
cat >hostile.py <<'END'
import contextlib, os, socket, threading, time
def client():
    link = socket.socket(socket.AF_UNIX)
    link.connect("/tmp/PCVIEW.uds")
    return link
def ends(link, seconds):
    link.settimeout(seconds)
    with ended:
        while link.recv(65536):
            pass
ended = contextlib.suppress(ConnectionError, BrokenPipeError)
silent = [client() for _ in range(40)]
noise, flood, deaf = client(), client(), client()
noise.sendall(os.urandom(6000) + b"\r\n\r\n")
deaf.sendall(b"GET /v1/view HTTP/1.1\r\n\r\n")
def sends(link, pieces, pause):
    with ended:
        for piece in pieces:
            link.sendall(piece)
            time.sleep(pause)
        print("a client was let send", len(pieces), "pieces")
thread = threading.Thread(target=sends, args=(flood, [b"x" * 1000000] * 100, 0))
thread.start()
sends(client(), [bytes([letter]) for letter in b"GET /v1/view HTTP/1.1"], 0.5)
thread.join()
for link in silent + [noise]:
    ends(link, 1)
print("done")
END
timeout 60 python3 hostile.py >hostile.log 2>&1 &
hostile=$!
for i in $(seq 20); do
    SECONDS=0
    prints '"epg":1' get /v1/view && [ $SECONDS -le 1 ] || fail "the view did not answer"
    sleep 0.3
done
wait $hostile || true
[ "$(cat hostile.log)" = done ] || { cat hostile.log; fail "a hostile client was not shed"; }
[ "$(ls /proc/$service/fd | wc -l)" -lt 40 ] || fail "connections are left"

# The last events are told before the service is gone, and the gap in the audit, if there was one.
"$pccast" events --follow --after 1000000000 >follow.log 2>&1 &
end_service TERM
within 2 grep -q 'no service answers' follow.log
grep -q "^pccast: audit: ended relay $first  the service closes" serve.log || fail "the audit has no end"

# For the journal each line has its priority.
JOURNAL_STREAM=$(stat -c %d:%i serve.log) start_service
"$pccast" relay 239.77.0.2:5000 239.77.0.2:5000 --epg 6 --key $key && fail "a relay that feeds itself is on air"
within 5 grep -q '^<3>pccast: audit: failed relay 6:.*it would feed itself' serve.log
end_service INT

# Many requests are listed within a second, in their order. Events that are no longer kept are told as lost.
"$bin/e2e_madeup" >madeup.log &
madeup=$!
within 5 grep -q ready madeup.log
curl -s --limit-rate 1 --max-time 20 -o deaf --unix-socket $view http://localhost/v1/view & # it harms nobody
within 5 test -s deaf
fastest=100000
for i in 1 2 3; do # other tests run beside it
    started=$(date +%s%N)
    "$pccast" list >list.log
    took=$((($(date +%s%N) - started) / 1000000))
    fastest=$((took < fastest ? took : fastest))
done
[ "$(wc -l <list.log)" -eq 10001 ] || fail "list has $(wc -l <list.log) lines"
prints 'lib[at]san' ldd "$pccast" || [ $fastest -lt 1000 ] || fail "list took $fastest ms" # a sanitizer takes ten times as long
"$pccast" list --json | grep -o '"start":[0-9]*' >starts
sort -c starts || fail "list is not in the order of the starts"
get /v1/events >full.json
get /v1/view >view.json
conforms view.json full.json
grep -q '"last":5256,"lost":5000,' full.json || fail "the gap is not told: $(head -c 100 full.json)"
"$pccast" events >events.log 2>gap.log
[ "$(wc -l <events.log)" -eq 1024 ] || fail "$(wc -l <events.log) events"
grep -q '^pccast: 5000 events are missing here' gap.log || fail "events does not tell the gap"
kill $madeup
wait $madeup
