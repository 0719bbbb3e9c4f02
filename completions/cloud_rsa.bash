# bash completion for cloud_rsa. Made by script/commands.
_cloud_rsa() {
    local now=${COMP_WORDS[COMP_CWORD]} place=${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]} words='' files=''
    ((COMP_CWORD > 1)) || place=:
    case $place in
    :) words='encrypt decrypt public --help --version' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$now")
    [[ -z $files ]] || mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
    [[ -z $files ]] || compopt -o filenames 2>/dev/null
}
complete -F _cloud_rsa cloud_rsa
