# Completion of qv for bash.

_qv() {
    local cur prev words cword
    _init_completion -n = || return

    # The command, whether its operand is there, and whether options have ended.
    local word command= operand= ended=
    for word in "${words[@]:1:cword-1}"; do
        if [[ $ended || $word != -* ]]; then
            if [[ ! $command ]]; then
                command=$word
            elif [[ ! $word =~ ^[0-9]+$ ]]; then # else it is a number of minutes
                operand=$word
            fi
        elif [[ $word == -- ]]; then
            ended=yes
        fi
    done

    if [[ $prev == --minutes && ! $ended ]]; then
        COMPREPLY=($(compgen -W "1 2 5 15 30" -- "$cur"))
    elif [[ $cur == -* && ! $ended ]]; then
        local options="--help"
        case $command in
            "") options+=" --version" ;;
            lock) options+=" --stdin" ;;
            open | remove | change | finish | undo) options+=" --recovery-key --stdin" ;;
            smart) options+=" --recovery-key --stdin --minutes --close" ;;
        esac
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [[ ! $command ]]; then
        COMPREPLY=($(compgen -W "lock open close remove change smart finish undo help" -- "$cur"))
    elif [[ ! $operand ]]; then
        case $command in
            lock) _filedir -d ;;
            open | remove | change | smart | close | finish | undo) _filedir quillvane ;; # and folders
        esac
    fi
} && complete -F _qv qv
