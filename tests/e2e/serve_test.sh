#!/usr/bin/env bash
# The service names the interface that it sends by, and warns of one that cannot send. A console that nobody reads
# neither stops it nor keeps it from ending, and a closed one lets nothing out.
. "$(dirname "$0")/service.sh"

# ready PATTERN COMMAND...: a service that is started so says the pattern, and closes cleanly.
ready() {
    local pattern=$1
    shift
    "$@" >ready.log 2>&1 &
    within 10 grep -q -e "$pattern" ready.log
    kill -TERM $!
    wait $! || fail "exit code $?: $*"
}
ready 'sending by lo (127.0.0.1);' "$pccast" serve
ready 'sending by lo (127.0.0.1);' env KTNET_MULTICAST_IF=127.0.0.1 "$pccast" serve
refused 69 "KTNET_MULTICAST_IF: '192.0.2.1' is no address of this machine .* lo with 127.0.0.1" \
    env KTNET_MULTICAST_IF=192.0.2.1 "$pccast" serve
! grep -q $'\e' ready.log || fail "colours in a file"

# A pipe that is full, and nobody reads it; an output that takes nothing. Neither is tried again and again.
mkfifo pipe
exec 5<>pipe
head -c 65536 /dev/zero >&5
for output in pipe /dev/full; do
    "$pccast" serve >$output 2>&1 5<&- &
    service=$!
    within 10 test -S /tmp/PCMBC.uds
    before=$(spent)
    timeout 10 "$pccast" message unread --repeat 0 >identity || fail "the service does not answer"
    sleep 0.5
    [ $(($(spent) - before)) -lt 30 ] || fail "half a second took $(($(spent) - before)) hundredths"
    kill -TERM $service
    within 10 test ! -e /proc/$service/fd/1
    wait $service || fail "exit code $?"
done
exec 5<&-

# Standard descriptors that are closed are not taken by a socket: nothing that is printed goes out.
start_watch
"$pccast" serve >&- 2>&- <&- &
service=$!
within 10 test -S /tmp/PCMBC.uds
"$pccast" message closed --repeat 0
within 5 grep -q '"text":"closed"' heard
kill -TERM $service
wait $service || fail "exit code $? with closed descriptors"
! grep -q '"kind":"broken"' heard || fail "console lines went out to the group"

ip link set lo down
ready "nothing can be sent by lo while it is down" "$pccast" serve --interface lo
ip link set lo up
ip addr flush dev lo
ready 'lo has no IPv4 address' "$pccast" serve --interface lo
