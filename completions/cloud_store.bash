# bash completion for cloud_store. Made by script/commands.
_cloud_store() {
    local now=${COMP_WORDS[COMP_CWORD]} place=${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]} words='' files=''
    ((COMP_CWORD > 1)) || place=:
    case $place in
    get:*)
        words=' '
        ((COMP_CWORD > 2)) || words+='login upgrade-time device-status upgrade-info device-info account'
        ;;
    set:*)
        words=' '
        ((COMP_CWORD > 2)) || words+='login upgrade-time device-status upgrade-info device-info account'
        ;;
    clear:*)
        words=' '
        ((COMP_CWORD > 2)) || words+='login upgrade-time device-status upgrade-info device-info account'
        ;;
    :) words='dump get set clear --help --version' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$now")
    [[ -z $files ]] || mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
    [[ -z $files ]] || compopt -o filenames 2>/dev/null
}
complete -F _cloud_store cloud_store
