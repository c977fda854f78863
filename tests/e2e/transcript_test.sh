#!/usr/bin/env bash
# What the programs print, to the last letter. Each line of transcript.txt that begins with "$ " is run. Behind it stand
# its standard output, and its standard error with "! " before each line. An exit code that is not 0 stands before the !.
# After a change that is meant, a run with TRANSCRIPT=FILE writes it anew: read what has changed in it.
command -v curl >/dev/null || { echo "skipped: curl is not installed"; exit 77; }
. "$(dirname "$0")/service.sh"
prints '^  -h,--help                   Print this help message and exit$' "$pccast" --help ||
    { echo "skipped: this version of CLI11 lays out the help in another way"; exit 77; }
export TZ=UTC0
umask 022
unset NO_COLOR JOURNAL_STREAM KTNET_MULTICAST_IF
cast=239.77.0.2:5000
cp "$samples"/sample.{ts,asf,nsc} .
far=@4000000000 # the times that a command names are all from here on

# Nothing that is run here takes longer.
pccast() { timeout -k 1 20 "$pccast" "$@"; }

# What differs from run to run, and from machine to machine, has a word instead.
same() {
    sed -E "s#$work|/tmp/tmp[.][A-Za-z0-9]*…#WORK#g; s/\b1[0-9]{9}\b/TIME/g
        s/\b20[23][0-9]-[0-9]{2}-[0-9]{2} [0-9:]{8}(\.[0-9]{3})?/WHEN/g; s/(  |until )[0-9]{2}:[0-9]{2}:[0-9]{2}\b/\1CLOCK/g
        s/[0-9]+d [0-9]{2}:[0-9]{2}\b/LEFT/g; s/ 3\.[0-9]+\.[0-9]+(\.[0-9]+)?\b/ VERSION/; s/(\"(milliseconds|duration_ms)\":)[0-9]+/\1MS/g
        s/, [0-9]+ late//; s/\"late\":[0-9]+/\"late\":N/
        /audit/s/until WHEN/until CLOCK/" # an hour before midnight it tells the day too
}

replay() {
    local line status
    while IFS= read -r line <&3; do
        [[ $line != ['#$']' '* ]] || printf '%s\n' "$line"
        [[ $line == '$ '* ]] || continue
        status=0
        eval "${line#\$ }" >.out 2>.err </dev/null || status=$?
        same <.out
        [ "$status" -eq 0 ] || [ -s .err ] || echo >.err
        same <.err | sed "s/^/${status#0}! /"
    done
}

exec 3<"$here/transcript.txt"
replay >"$work/new"
[ -z "${TRANSCRIPT:-}" ] || cp "$work/new" "$TRANSCRIPT"
diff "$here/transcript.txt" "$work/new" >&2 || fail "what is printed has changed"
