#!/usr/bin/env bash
# The completion offers every long option that a command's help shows, and no other.
#   completion_test.sh COMPLETION PROGRAM
set -euo pipefail
. "$1"
program=$2

offered() { # WORDS...: what the completion offers for the last word
    COMP_WORDS=(pccast "$@")
    COMP_CWORD=$#
    _pccast
    printf '%s\n' "${COMPREPLY[@]}" | sort -u
}

helped() { # COMMAND...: the long options of its help
    "$program" "$@" --help | grep -oE '^ +(-[a-z], *)?--?[a-z-]+(,--[a-z-]+)*' | grep -oE -- '--[a-z][a-z-]+' | sort -u
}

failed=0
check() { # NAME EXPECTED FOUND
    [ "$2" = "$3" ] || { printf '%s: expected\n%s\nfound\n%s\n' "$1" "$2" "$3"; failed=1; }
}

commands=$("$program" --help | sed -n '/^Subcommands:/,/^$/p' | grep -oE '^  [a-z]+' | tr -d ' ' | sort -u)
check "commands" "$commands" "$(offered "" | grep -v '^-')"
for command in $commands; do
    check "$command" "$(helped "$command")" "$(offered "$command" -- | grep '^--')"
done
check "half a word" "relay" "$(offered re)"
check "a file's format" $'asf\nts' "$(offered file film.ts --format "")"
check "an option's value" "" "$(offered message text --repeat "")"
cd "$(mktemp -d)"
trap 'rm -r "$PWD"' EXIT
: >"a film.ts"
check "a file with a blank" "a film.ts" "$(offered file "")"
exit "$failed"
