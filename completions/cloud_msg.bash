# bash completion for cloud_msg: the command word; what follows is the caller's own.
_cloud_msg() {
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "-h alias bind check download factory getBindStatus getDevToken \
getFwList getLogicStatus kickoff login online passthrough rmuser setLogicStatus tmp_bind tmp_unbind unbind \
update" -- "${COMP_WORDS[1]}")
    fi
}
complete -F _cloud_msg cloud_msg
