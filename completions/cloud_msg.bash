# bash completion for cloud_msg. Made by script/commands.
_cloud_msg() {
    local now=${COMP_WORDS[COMP_CWORD]} place=${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]} words='' files=''
    ((COMP_CWORD > 1)) || place=:
    case $place in
    :) words='-h bind tmp_bind unbind tmp_unbind login alias rmuser getDevToken passthrough online getBindStatus getLogicStatus setLogicStatus factory kickoff getFwList check download update' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$now")
    [[ -z $files ]] || mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
    [[ -z $files ]] || compopt -o filenames 2>/dev/null
}
complete -F _cloud_msg cloud_msg
