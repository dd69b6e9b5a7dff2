# Completion of qv for bash.

_qv() {
    local cur prev words cword split
    _init_completion -s -n : || return

    # The command, whether its operand is there, and whether options have ended.
    local word before= command= operand= ended=
    for word in "${words[@]:1:cword-1}"; do
        if [[ $ended || $word != -* ]]; then
            if [[ ! $command ]]; then
                command=$word
            elif [[ $ended || $before != --minutes ]]; then
                operand=$word
            fi
        elif [[ $word == -- ]]; then
            ended=yes
        fi
        before=$word
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
    # Bash takes a colon for the end of a word, and replaces only what follows it.
    __ltrim_colon_completions "$cur"
} && complete -F _qv qv
