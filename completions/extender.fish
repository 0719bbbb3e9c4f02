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
    __extender_help | sed -nE '/^Subcommands:/,$s/^  ([a-z][a-z-]*) *(.*)/\1\t\2/p; /^Options:/,/^$/s/^  (-.,)?(--[^ ]*)( [^ ]+)*(  +(.*))?$/\2\t\5/p'
end
function __extender_takes # what the option before the cursor takes, if it takes anything
    set -l before (commandline -opc)[-1]
    string match -q -- '-*' $before; or return 1
    __extender_help | sed -nE "s/^  ([^ ]*,)?$before(,[^ ]*)? ([A-Z]+(:[A-Z{][^ ]*)?)( .*)?\$/\3/p" | string match -r '.+'
end
function __extender_state # where the cursor stands: command, choice, file, words, or words and file
    set -l words (commandline -opc)
    if contains -- -- $words
        echo command
    else if set -l takes (__extender_takes)
        string match -q '*{*' $takes; and echo choice; or echo file
    else if __extender_help | string match -q 'Positionals:*'
        echo words+file
    else
        echo words
    end
end
function __extender_command # the command after --, as at a prompt of its own
    set -l words (commandline -opc)
    set -l first (math (contains -i -- -- $words) + 1)
    complete -C (string join ' ' -- (string escape -- $words[$first..-1]) (commandline -ct))
end
complete -c extender -f
complete -c extender -n 'string match -q "words*" (__extender_state)' -a '(__extender_words)'
complete -c extender -n 'string match -q "*file" (__extender_state)' -F
complete -c extender -n 'test (__extender_state) = choice' -a "(__extender_takes | string replace -r '.*{(.*)}.*' '\$1' | string split ,)"
complete -c extender -n 'test (__extender_state) = command' -a '(__extender_command)'
