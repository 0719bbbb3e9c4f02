# bash completion for kxcc-tap. Made by script/commands.
_kxcc_tap() {
    local now=${COMP_WORDS[COMP_CWORD]} place=${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]} words='' files=''
    ((COMP_CWORD > 1)) || place=:
    case $place in
    *:--socket) files=1 ;;
    *:--limit) ;;
    *) words='--socket --wait --limit --restore --help --version' files=1 ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$now")
    [[ -z $files ]] || mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
    [[ -z $files ]] || compopt -o filenames 2>/dev/null
}
complete -F _kxcc_tap kxcc-tap
