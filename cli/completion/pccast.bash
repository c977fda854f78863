# Completion of pccast for bash: source this file, or install it as
# /usr/share/bash-completion/completions/pccast

_pccast_files() { # one file a line, because names may contain blanks
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
    compopt -o filenames 2>/dev/null
}

_pccast() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command= i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            serve | relay | file | stop | message | cancel | list | status | events | watch | station)
                command=${COMP_WORDS[i]}
                break
                ;;
        esac
    done

    # What follows an option that takes a value.
    case $before in
        --interface)
            COMPREPLY=($(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"))
            return
            ;;
        --format)
            COMPREPLY=($(compgen -W "ts asf" -- "$word"))
            return
            ;;
        --type)
            COMPREPLY=($(compgen -W "$([ "$command" = stop ] && echo 1) 2 3" -- "$word"))
            return
            ;;
        --start | --end)
            COMPREPLY=($(compgen -W "now +30s +5m +1h" -- "$word"))
            return
            ;;
        --for)
            COMPREPLY=($(compgen -W "30s 5m 1h 1d" -- "$word"))
            return
            ;;
        --plugin | --show | -o | --output)
            _pccast_files "$word"
            return
            ;;
        --epg | --key | --port | --to | --group | --ttl | --name | --repeat | --count | --stream-id | --after)
            return
            ;;
    esac

    local request="--epg --start --end --for --plugin --help"
    case $command in
        "") COMPREPLY=($(compgen -W "serve relay file stop message cancel list status events watch station --help --version" -- "$word")) ;;
        serve) COMPREPLY=($(compgen -W "--interface --plugin --help" -- "$word")) ;;
        relay) COMPREPLY=($(compgen -W "$request --format --type --key --seed --fast-seed --chunks" -- "$word")) ;;
        file)
            case $word in
                -*) COMPREPLY=($(compgen -W "$request --to --format --stream-id" -- "$word")) ;;
                *) _pccast_files "$word" ;;
            esac
            ;;
        stop) COMPREPLY=($(compgen -W "--epg --type --start --end --port --format --plugin --help" -- "$word")) ;;
        message) COMPREPLY=($(compgen -W "$request --priority --repeat" -- "$word")) ;;
        cancel) COMPREPLY=($(compgen -W "--priority --plugin --help" -- "$word")) ;;
        list | status) COMPREPLY=($(compgen -W "--json --help" -- "$word")) ;;
        events) COMPREPLY=($(compgen -W "--follow --json --after --help" -- "$word")) ;;
        watch) COMPREPLY=($(compgen -W "--json --plain --for --count --interface --help" -- "$word")) ;;
        station)
            case $word in
                -*) COMPREPLY=($(compgen -W "--group --port --ttl --name --show --output --help" -- "$word")) ;;
                *) _pccast_files "$word" ;;
            esac
            ;;
    esac
}
complete -F _pccast pccast
