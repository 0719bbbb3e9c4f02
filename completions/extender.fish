# fish completion for extender. It asks the program for its words, so that a new command needs nothing here.
function __extender_help
    set -l words (commandline -opc)
    set -l program $words[1]
    set -l road
    set -l help ($program --help 2>/dev/null)
    for word in $words[2..-1]
        if printf '%s\n' $help | sed -n '/^Subcommands:/,$p' | grep -qE "^  $word( |\$)"
            set -a road $word
            set help ($program $road --help 2>/dev/null)
        end
    end
    printf '%s\n' $help
end
function __extender_words
    __extender_help | sed -nE '/^Subcommands:/,$s/^  ([a-z][a-z-]*) *(.*)/\1\t\2/p; /^Options:/,/^$/s/^  ([^ ]*,)?(--[^ ]*)( [A-Z{][^ ]*)*  +(.*)/\2\t\4/p'
end
function __extender_takes # what the option before the cursor takes, if it takes anything
    set -l before (commandline -opc)[-1]
    string match -q -- '-*' $before; or return 1
    __extender_help | sed -nE "s/^  ([^ ]*,)?$before(,[^ ]*)? ([A-Z]+[^ ]*|:?\{[^}]*\}).*/\3/p" | string match -q -r '.'
end
function __extender_past_dashes
    contains -- -- (commandline -opc)
end
complete -c extender -f
complete -c extender -n 'not __extender_takes; and not __extender_past_dashes' -a '(__extender_words)'
complete -c extender -n __extender_takes -F
complete -c extender -n __extender_past_dashes -a '(__fish_complete_subcommand)'
