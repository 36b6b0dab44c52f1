# bash completion for dmcat

_dmcat() {
    local cur prev words cword
    _init_completion -n : || return

    case $prev in
    --file)
        _filedir
        return
        ;;
    --data | --hex | --count | --interval | --timeout | --retry)
        return
        ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '--help --version --listen --echo --count --data --hex --file
            --interval --timeout --retry --json' -- "$cur"))
        return
    fi

    case $prev in
    smbus)
        COMPREPLY=($(compgen -W 'send recv' -- "$cur"))
        ;;
    *://*)
        COMPREPLY=($(compgen -W 'ping info health stats tasks' -- "$cur"))
        ;;
    --listen)
        COMPREPLY=($(compgen -W 'udp:// hdc://' -- "$cur"))
        ;;
    dmcat | */dmcat)
        COMPREPLY=($(compgen -W 'udp:// hdc:// ipc:// smbus' -- "$cur"))
        ;;
    esac
    # An address follows the scheme.
    [[ ${COMPREPLY-} != *:// ]] || compopt -o nospace
    __ltrim_colon_completions "$cur"
} && complete -F _dmcat dmcat
