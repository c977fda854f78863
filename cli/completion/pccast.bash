# Completion of pccast for bash: source this file, or install it as
# /usr/share/bash-completion/completions/pccast

_pccast() {
    # An identity has colons, at which bash cuts words apart.
    local words=() word offered i
    for ((i = 1; i <= COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if ((i > 1)) && [[ $word == :* || ${COMP_WORDS[i - 1]} == *: ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
    done
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" complete "${words[@]}" 2>/dev/null)
    word=${words[-1]}
    if [ "${COMPREPLY[0]-}" = :files ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        compopt -o filenames 2>/dev/null
        return
    fi
    offered=("${COMPREPLY[@]%%$'\t'*}") # the rest of a line describes the word
    COMPREPLY=("${offered[@]#"${word%"${word##*:}"}"}")
}
complete -F _pccast pccast
