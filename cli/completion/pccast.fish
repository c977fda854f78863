# Completion of pccast for fish: source this file, or install it as
# /usr/share/fish/vendor_completions.d/pccast.fish

function __pccast_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l offered (command $words[1] complete $words[2..-1] "$word" 2>/dev/null)
    if test "$offered[1]" = :files
        __fish_complete_path "$word"
    else
        printf '%s\n' $offered
    end
end
complete -c pccast -f -a '(__pccast_complete)'
