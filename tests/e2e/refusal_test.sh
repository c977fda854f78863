#!/usr/bin/env bash
# pccast says what it cannot do, with the exit code that scripts rely on, and does no harm.
. "$(dirname "$0")/service.sh"
cast=239.77.0.2:5000

refused 70 'output cannot be written' bash -c '"$1" --help >/dev/full' - "$pccast"
head -c 9400 /dev/zero | tr '\0' G > noclock # passes for a transport stream, but says no time
refused 65 'no clock reference (PCR)' "$pccast" file noclock --to $cast
refused 69 'has no QX_PlugIn_Name' "$pccast" serve --plugin "$bin/../lib/libvexa_pgl.so.1"

# A planted link is not followed, the file itself is replaced whole, and who may read it is as usual.
echo mine >other
ln -s other station.nsc.new
ln -s other station.nsc
(umask 022 && "$pccast" station "$samples/sample.asf" --group 239.77.0.2 --port 1 -o station.nsc) || fail "exit code $?"
[ "$(cat other)" = mine ] || fail "a planted link was followed"
[ "$(stat -c '%F %a' station.nsc)" = 'regular file 644' ] || fail "$(stat station.nsc)"
[ "$(echo station.nsc*)" = 'station.nsc station.nsc.new' ] || fail "something is left: $(echo station.nsc*)"

# Another file stands where a socket belongs: it stays, and the reason is given.
echo mine >/tmp/PCMBC.uds
refused 69 'PCMBC.uds' "$pccast" serve
grep -q mine /tmp/PCMBC.uds || fail "a file of someone else's was replaced"
[ ! -e /tmp/PCSTREAM.uds ] || fail "a service that could not start left its socket"
rm /tmp/PCMBC.uds

# A queue that nobody serves is no reason to hang.
python3 -c 'import socket, time
served, *waiting = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK) for i in range(9)]
served.bind("/tmp/PCMBC.uds")
served.listen(1)
for client in waiting: client.connect_ex("/tmp/PCMBC.uds")
time.sleep(20)' &
full=$!
within 5 test -S /tmp/PCMBC.uds
sleep 0.2
refused 69 'does not take up what waits for it' timeout 5 "$pccast" message text
kill $full
rm /tmp/PCMBC.uds

# What the plug-in prints is no result. A service that comes later is waited for.
mkdir -p /reg/reg0
printf '/ORVEN/SERVICE/PCSTREAM=\n' >/reg/reg0/master.reg
python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind("/tmp/PCSTREAM.uds")' # nobody listens there any more
"$pccast" relay --wait 10s 239.77.0.1:1 $cast --for 1s >identity 2>said &
client=$!
start_service
wait $client || fail "did not wait for the service: $(cat said)"
[[ $(cat identity) =~ ^1:2:[0-9]+:[0-9]+:5000:0x2021$ ]] || fail "standard output is not the identity: $(cat identity)"
refused 69 'another service already listens on /tmp/PCSTREAM.uds' "$pccast" serve
printf '/ORVEN/SERVICE/PCSTREAM=DISABLE\n' >/reg/reg0/master.reg
refused 78 'switches the service off' "$pccast" relay 239.77.0.1:1 $cast
refused 0 'message requested' "$pccast" message text
refused 70 'output cannot be written' bash -c '"$1" message text --repeat 0 >/dev/full' - "$pccast"
refused 70 'output cannot be written' timeout 30 bash -c '"$1" watch --json --count 2 >/dev/full' - "$pccast"
printf '/ORVEN/SERVICE/PCMBC=disable\n' >/reg/reg1/slave.reg
refused 78 'PCMBC=DISABLE' "$pccast" message text
end_service TERM

# A plug-in that is another, or lacks something: the real one with other letters in it.
bytes=$(sed -nE 's/.* PCCAST Plugin ([0-9]+)\.([0-9]+)\.([0-9]+)\.([0-9]+) serves .*/\4 \3 \2 \1/p' serve.log)
# shellcheck disable=SC2086
while IFS='|' read -r change said; do
    LC_ALL=C sed "$change" "$bin/../lib/libpccast.so.3" >altered.so
    refused 69 "^pccast: the plug-in ./altered.so $said; this program cannot use it\$" timeout 9 "$pccast" serve --plugin ./altered.so
done <<END
s/PCCAST Plugin\x00/PCCAST Plagin\x00/|is named 'PCCAST Plagin', not 'PCCAST Plugin'
s/$(printf '\\x%02x' $bytes)/\x04\x03\x02\x01/|has version 01020304, not $(printf '%02X' $(tac -s' ' <<<"$bytes "))
s/p_qxapi_name_table_pccast/p_qxapi_nome_table_pccast/|has no table of command names (p_qxapi_name_table_pccast)
END
python3 -c 'import socket, time
server = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); server.bind("/tmp/PCMBC.uds"); time.sleep(20)' &
within 5 test -S /tmp/PCMBC.uds
refused 69 '^pccast: /tmp/PCMBC.uds cannot be used: Protocol wrong type for socket$' timeout 9 "$pccast" serve
kill $!
rm /tmp/PCMBC.uds

ip route del 224.0.0.0/4 # the service runs without a route, but says so
refused 0 'nothing can be sent to 224.9.9.9' timeout --preserve-status 2 "$pccast" serve
refused 69 '^pccast: 224.9.9.9 cannot be joined (the reason is above); --interface names the interface to listen on: this machine has lo with 127.0.0.1$' "$pccast" watch
refused 69 '^pccast: 224.9.9.9 cannot be joined; the reason is above$' "$pccast" receive --on-air out
