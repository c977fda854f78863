#!/usr/bin/env bash
# The completions offer every command, every long option that a command's help shows, and no other; each shell that is
# installed shows what the program offers.
#   completion_test.sh FOLDER PROGRAM
set -euo pipefail
folder=$1
program=$2
PATH=$(dirname "$program"):$PATH
. "$folder/pccast.bash"

failed=0
check() { # NAME EXPECTED FOUND
    [ "$2" = "$3" ] || { printf '%s: expected\n%s\nfound\n%s\n' "$1" "$2" "$3"; failed=1; }
}

in_bash() { # WORDS...: what the completion offers for the last word
    COMP_WORDS=(pccast "$@")
    COMP_CWORD=$#
    _pccast
    printf '%s\n' "${COMPREPLY[@]}" | sort -u
}

in_fish() {
    fish --no-config -c "source '$folder/pccast.fish'; complete -C \"pccast $*\"" | cut -f1 | sort -u
}

in_zsh() { # with the functions that the shell's own completion would bring
    zsh -f -c '
        _describe() { print -l -- ${${(P)@[-1]}%%:*} }
        _files() { print -l -- * }
        completion=$1
        shift
        words=("$@") CURRENT=$#
        . $completion' - "$folder/_pccast" pccast "$@" | sort -u
}

helped() { # COMMAND...: the long options of its help
    "$program" "$@" --help | grep -oE '^ +(-[a-z], *)?--?[a-z-]+(,--[a-z-]+)*' | grep -oE -- '--[a-z][a-z-]+' | sort -u
}

commands=$("$program" --help | sed -n '/^Subcommands:/,/^$/p' | grep -oE '^  [a-z]+' | tr -d ' ' | sort -u)
cd "$(mktemp -d)"
trap 'rm -r "$PWD"' EXIT
: >"a film.ts"
for shell in bash fish zsh; do
    command -v $shell >/dev/null || { echo "$shell is not installed: it is left out"; continue; }
    check "$shell: commands" "$(printf '%s\nhelp\n' "$commands" | sort)" "$(in_$shell "")"
    check "$shell: half a word" relay "$(in_$shell rel)"
    check "$shell: options" "$(helped relay)" "$(in_$shell relay --)"
    check "$shell: a format" $'asf\nts' "$(in_$shell file film.ts --format "")"
    check "$shell: an option's value" "" "$(in_$shell message text --repeat "")"
    check "$shell: a file with a blank" "a film.ts" "$(in_$shell file "" | sed 's/\\//g')"
done
for command in $commands; do
    check "$command" "$(helped "$command")" "$(in_bash "$command" --)"
done
exit "$failed"
