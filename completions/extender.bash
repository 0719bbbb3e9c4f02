# bash completion for extender. It asks the program for its words, so that a new command needs nothing here.
_extender() {
    local now=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} path=() word help takes at
    help=$("${COMP_WORDS[0]}" --help 2>/dev/null) || return
    for ((at = 1; at < COMP_CWORD; at++)); do
        word=${COMP_WORDS[at]}
        if [[ $word == -- ]]; then # the command to run, then its files
            ((at == COMP_CWORD - 1)) && mapfile -t COMPREPLY < <(compgen -c -- "$now")
            compopt -o default
            return
        fi
        if sed -n '/^Subcommands:/,$p' <<<"$help" | grep -qE "^  $word( |\$)"; then
            path+=("$word")
            help=$("${COMP_WORDS[0]}" "${path[@]}" --help 2>/dev/null) || return
        fi
    done
    takes=$(sed -nE "s/^  ([^ ]*,)?$before(,[^ ]*)? ([A-Z]+(:[A-Z{][^ ]*)?)( .*)?$/\3/p" <<<"$help")
    case $takes in
    *:\{*\}* | \{*) mapfile -t COMPREPLY < <(compgen -W "$(sed 's/.*{//; s/}.*//; y/,/ /' <<<"$takes")" -- "$now") ;;
    *:DIR*) mapfile -t COMPREPLY < <(compgen -d -- "$now") && compopt -o filenames ;;
    ?*) mapfile -t COMPREPLY < <(compgen -f -- "$now") && compopt -o filenames ;;
    *)
        word=$(sed -nE '/^Subcommands:/,$s/^  ([a-z][a-z-]*).*/\1/p; /^Options:/,/^$/s/^  (-[^ ]*).*/\1/p' <<<"$help" | tr , '\n')
        mapfile -t COMPREPLY < <(compgen -W "$word" -- "$now")
        if grep -q '^Positionals:' <<<"$help"; then
            mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
            compopt -o filenames
        fi
        ;;
    esac 2>/dev/null
}
complete -F _extender extender
