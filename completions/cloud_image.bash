# bash completion for cloud_image. Made by script/commands.
_cloud_image() {
    local now=${COMP_WORDS[COMP_CWORD]} place=${COMP_WORDS[1]}:${COMP_WORDS[COMP_CWORD - 1]} words='' files=''
    ((COMP_CWORD > 1)) || place=:
    case $place in
    make:--version) ;;
    make:--size) ;;
    make:--payload) files=1 ;;
    make:-o) files=1 ;;
    make:*)
        words='--version --size --payload -o'
        ;;
    info:*)
        words='--json '
        files=1
        ;;
    :) words='make info --help --version' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$now")
    [[ -z $files ]] || mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$now")
    [[ -z $files ]] || compopt -o filenames 2>/dev/null
}
complete -F _cloud_image cloud_image
