# bash completion for dmond

_dmond() {
    local cur prev words cword
    _init_completion -n : || return

    case $prev in
    --udp)
        COMPREPLY=($(compgen -W '127.0.0.1: 0.0.0.0:' -- "$cur"))
        compopt -o nospace
        __ltrim_colon_completions "$cur"
        ;;
    --hdc | --ipc | --interval) ;;
    *)
        COMPREPLY=($(compgen -W '--help --version --udp --hdc --ipc --interval' -- "$cur"))
        ;;
    esac
} && complete -F _dmond dmond
