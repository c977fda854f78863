#!/usr/bin/env bash
# tune and its player, which is a script here: what it is told, to the letter, and how soon a player that ends, hangs or
# stands still is replaced or told again. Receivers come back to an interface that was away.
command -v python3 >/dev/null || { echo "skipped: python3 is not installed"; exit 77; }
. "$(dirname "$0")/service.sh"

export XDG_RUNTIME_DIR=$work

# Two receivers by an interface that goes away for longer than they wait for an announcement.
add_quiet() {
    ip link add quiet type veth peer name other
    ip addr add 10.77.0.1/24 dev quiet
    ip link set quiet up
}
add_quiet
cp "$(type -P true)" gone
"$pccast" tune --interface quiet --player ./gone >quiet.log 2>&1 &
"$pccast" receive --on-air caught --interface quiet >caught.log 2>&1 &
within 5 joined 090909E0 3
ip link del quiet
rm gone
"$pccast" tune --interface lo --player false >ends.log 2>&1 &

# It notes each line with its time, and what it does depends on how often it was started, and told to show something.
cat >player <<'END'
#!/usr/bin/env python3
import json, os, signal, socket, sys, time
def note(text):
    with open("told", "a") as told:
        print(int(time.monotonic() * 1000), text, file=told)
note(" ".join(sys.argv))
print(os.getpid(), file=open("pid", "w"))
starts = sum("--no-config" in line for line in open("told"))
if starts == 1:
    sys.exit(3)
if starts == 2:
    os.kill(os.getpid(), signal.SIGUSR1)
server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[-1].split("=")[1])
server.listen()
shown = asked = 0
while True:
    link = server.accept()[0]
    def say(*messages):
        link.sendall("".join(json.dumps(message) + "\n" for message in messages).encode())
    if starts == 3:
        time.sleep(60)
    for line in link.makefile():
        if line == '{"command":["get_property","time-pos"],"request_id":7}\n':
            asked += 1
            say({"request_id": 7, "data": time.monotonic() if shown == 4 else 1.5}, [], {"request_id": 7})
            continue
        note(line.strip())
        if "loadfile" in line:
            if shown == 1:
                note("asked" if 4 <= asked <= 12 else "asked %d times in 4 s" % asked)
            shown += 1
            begins, picture = {"event": "start-file"}, {"event": "playback-restart"}
            if shown == 3:
                say(begins, {"event": "end-file", "reason": "error"})
            else:
                say({"event": "end-file", "reason": "eof"}, begins, *[picture, picture] * (shown in (1, 4)))
        if '"none"' in line:
            link.shutdown(socket.SHUT_RDWR) # it listens anew
            break
        if "stop" in line:
            sys.exit(0)
END
chmod +x player
"$pccast" tune --interface lo --fullscreen --player ./player >tune.log 2>&1 &
tune=$!
within 9 counted 3 no-config told
begun 05
within 20 counted 4 no-config told
while sleep 5; do begun 05; done &
announcer=$!
sleep 1.5 # the 12 s of both receivers are over
add_quiet
within 4 joined 090909E0 2
within 40 counted 4 loadfile told
printf 'KTNF\2\0\34\0\16\0\0\0\314\0\0\0\40\0\4\0\205\73\261\152\6\0\0\0\13\120\2\0hi' >/dev/udp/224.9.9.9/9367
within 20 counted 5 loadfile told
kill $announcer
ended 06
within 9 counted 5 no-config told
joined 090909E0 3 || fail "receive has not come back to its interface"
kill -KILL $tune # takes the player with it
within 5 test ! -e "/proc/$(<pid)"
diff tune.log /dev/fd/3 3<<'END' >&2 || fail "tune says otherwise"
pccast: listening to 224.9.9.9; Ctrl-C or SIGTERM ends it
pccast: the player has ended (exit code 3); it is started again
pccast: the player has ended (signal: User defined signal 1); it is started again
pccast: on air: programme 7, H.264 at 239.1.2.3:5000
pccast: the player has ended (signal: Killed); it is started again
pccast: the picture is there
pccast: no picture; the cast is begun again until it comes
pccast: the picture is there
pccast: message: hi
pccast: nothing on air
pccast: the player has ended (exit code 0); it is started again
END

# Before each line the least milliseconds since the line above; it may take 3 s more.
cat >expected <<'END'
0 START
400 START
800 START
9200 START
0 SHOW
3700 SHOW
0 asked
14500 SHOW
400 SHOW
0 {"command":{"name":"osd-overlay","id":1,"format":"ass-events","data":"{\\an7\\pos(24,594)\\bord0\\shad0\\1c&H201008&\\1a&H18&\\p1}m 0 0 l 1232 0 l 1232 102 l 0 102{\\p0}\n{\\an7\\pos(24,594)\\bord0\\shad0\\1c&H00C8FF&\\1a&H00&\\p1}m 0 0 l 10 0 l 10 102 l 0 102{\\p0}\n{\\an7\\q2\\pos(58,618)\\fs44\\b1\\bord0\\shad0\\1c&HFFFFFF&}hi","res_x":1280,"res_y":720,"z":10}}
4800 {"command":{"name":"osd-overlay","id":1,"format":"none","data":"","res_x":1280,"res_y":720,"z":10}}
0 SHOW
0 {"command":["stop"]}
100 START
END
sed -i -e "s#START#./player --no-config --load-scripts=no --ytdl=no --osc=no --no-terminal --idle=yes --force-window=yes \
--title=PCCAST --resume-playback=no --save-position-on-quit=no --autoload-files=no --load-unsafe-playlists=no \
--demuxer=lavf --audio-fallback-to-null=yes --audio-display=no --demuxer-lavf-analyzeduration=1 --cache=yes \
--cache-pause-wait=0.5 --demuxer-max-bytes=32MiB --demuxer-max-back-bytes=0 --fullscreen=yes \
--geometry=100%x100%+0+0 --input-default-bindings=no --input-vo-keyboard=no --cursor-autohide=always \
--input-ipc-server=$work/pccast-tune.X/mpv#" -e 's#SHOW#{"command":["set_property","demuxer-lavf-format","mpegts"]}\n0 {"command":["set_property","pause",false]}\n0 &#' \
    -e 's#SHOW#{"command":["loadfile","udp://239.1.2.3:5000?overrun_nonfatal=1\&localaddr=127.0.0.1","replace"]}#' expected
awk 'NR == FNR { least[FNR] = $1; next }
    { passed = FNR == 1 ? 0 : $1 - before; before = $1 }
    passed < least[FNR] || passed > least[FNR] + 3000 { print FNR ": " passed " ms, not " least[FNR]; bad = 1 }
    END { exit bad }' expected told >&2 || fail "too soon, or too late"
sed 's/^[0-9]* //; s/tune[.][^/]*/tune.X/' told | diff - <(sed 's/^[0-9]* //' expected) >&2 || fail "the player was told otherwise"

# One that ends at once is started ever more seldom, and one that cannot be run every 10 s.
for log in ends quiet; do grep -c 'exit code 1\|cannot be run' $log.log; done | tr '\n' ' ' | grep -x '[89] [345] ' ||
    fail "started too often, or too seldom"
