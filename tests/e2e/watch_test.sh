#!/usr/bin/env bash
# The live table on a terminal: a flood of long messages is heard whole and drawn ten times a second at most, the key q
# ends it, and a terminal that is dumb or wants no colour gets what it can show.
. "$(dirname "$0")/service.sh"
export TERM=xterm
unset NO_COLOR
export TZ=UTC0
frame='KTNF\x02\x00\x1c\x00\x0e\x00\x00\x00\xcc\x00\x00\x00\x20\x00\x04\x00\x85\x3b\xb1\x6a'

# watch_on_terminal LOG COMMAND: the screen's bytes go to LOG; what is typed comes from standard input.
watch_on_terminal() {
    timeout 30 script -qec "stty cols 100 rows 30; $2" /dev/null >"$1" 2>&1
}

# Items of 60000 bytes: the text's length in the long form.
{ printf '%b' "$frame\x68\xea\x00\x00\x0b\x50\xff\xff\x60\xea\x00\x00"; head -c 60000 /dev/zero | tr '\0' x; } >flood
SECONDS=0
watch_on_terminal screen "'$pccast' watch --count 1000" </dev/null &
watcher=$!
within 5 grep -q '0909E0' /proc/net/igmp
for ((i = 0; i < 1000; i++)); do
    cat flood
    sleep 0.001 # a sender at full speed outruns any socket
done | dd bs=60036 iflag=fullblock status=none >/dev/udp/224.9.9.9/9367
wait $watcher || fail "not every datagram was heard: $(tail -c 300 screen)"
drawn=$(grep -c $'\e\[H' screen)
[ "$drawn" -le $((SECONDS * 10 + 12)) ] || fail "the table was drawn $drawn times in $SECONDS s"
grep -q $'\e\[1mON AIR' screen || fail "no colour on a terminal"
! sed '1,/1049l/d' screen | grep -q $'\e' || fail "escapes behind the table"
grep -q '^ \{18\}x\{81\}' screen || fail "the message does not use the free rows"

{ sleep 1; printf q; sleep 5; } | watch_on_terminal keyed "NO_COLOR=1 '$pccast' watch && stty -a" || fail "q does not end it"
grep -q 'q ends' keyed || fail "the table does not say how it ends"
grep -q '[; ]icanon' keyed && grep -q ' echo ' keyed || fail "the terminal is not left as it was: $(tail -n 8 keyed)"
[ "$(grep -c $'\e\[H' keyed)" -lt 7 ] || fail "a table without news is drawn all the time"
! grep -q $'\e\[1m' keyed || fail "colours in spite of NO_COLOR"

# Ctrl-Z gives the shell its screen back, and the table comes again with the program.
watch_on_terminal stopped "sh -c 'echo \$\$ >watcher; exec \"\$0\" watch' '$pccast'; exit \$?" </dev/null &
within 5 grep -q 'q ends' stopped
watcher=$(<watcher)
kill -TSTP "$watcher"
within 5 grep -q '^State:.T' "/proc/$watcher/status"
kill -CONT "$watcher"
within 5 counted 2 $'\e\[?1049h' stopped
kill -TERM "$watcher"
wait %+ || fail "exit code $?"
[ "$(grep -o $'\e\[?1049[hl]' stopped | tr -d '\n\033[?')" = 1049h1049l1049h1049l ] || fail "the screens: $(cat -v stopped)"

watch_on_terminal plain "TERM=dumb '$pccast' watch --for 1s" </dev/null || fail "exit code $?"
! grep -q $'\e' plain || fail "escapes on a dumb terminal"
grep -q 'heard nothing in 1s' plain || fail "does not say that nothing was heard"

# A list on a terminal is as wide as it. One that does not tell its size has 80 columns.
start_service
"$pccast" relay 239.77.0.1:4000 239.77.0.2:5000 --start @4000000000 --for 1h >requested 2>&1
for columns in 60 0; do
    script -qec "stty cols $columns; NO_COLOR=1 '$pccast' list" /dev/null </dev/null
done | tr -d '\r' | diff - /dev/fd/3 3<<'END' >&2 || fail "the list does not fit"
STATE    EPG  KIND   WHAT        FROM                 UNTIL                LEFT
waiting  1    relay  239.77.0.…  2096-10-02 07:06:40  2096-10-02 08:06:40
         to 239.77.0.2:5000  1:2:4000000000:4000003600:5000:0x2021
STATE    EPG  KIND   WHAT         FROM                 UNTIL                LEFT
waiting  1    relay  239.77.0.1…  2096-10-02 07:06:40  2096-10-02 08:06:40
         to 239.77.0.2:5000  1:2:4000000000:4000003600:5000:0x2021
END
end_service TERM
