# Completion of qv for fish.

# Folders, and the files whose name ends so: of what fish offers for a command that it does not know,
# and that does not exist.
function __qv_items
    complete -C"qv-of-no-kind "(commandline -ct) | string match -ri '^[^\t]*(?:/|\.quillvane)(?:\t.*)?$'
end

set -l commands lock open close remove change smart finish undo help
complete -c qv -f
set -l first "not __fish_seen_subcommand_from $commands"
complete -c qv -n $first -a lock -d 'Protect a folder'
complete -c qv -n $first -a open -d 'Open an item in a volume'
complete -c qv -n $first -a close -d 'Close the volume again'
complete -c qv -n $first -a remove -d 'Make an item a folder again'
complete -c qv -n $first -a change -d "Change an item's password"
complete -c qv -n $first -a smart -d 'Open an item in place'
complete -c qv -n $first -a finish -d 'Finish what was interrupted'
complete -c qv -n $first -a undo -d 'Undo what was interrupted'
complete -c qv -n $first -a help -d 'Show the help'
complete -c qv -s h -l help -d 'Show the help'
complete -c qv -n $first -l version -d 'Show the version'

complete -c qv -n '__fish_seen_subcommand_from lock' -a '(__fish_complete_directories)'
complete -c qv -n '__fish_seen_subcommand_from open close remove change smart finish undo' \
    -a '(__qv_items)'
complete -c qv -n '__fish_seen_subcommand_from lock open remove change smart finish undo' \
    -l stdin -d 'Read the secrets from standard input'
complete -c qv -n '__fish_seen_subcommand_from open remove change smart finish undo' \
    -l recovery-key -d 'Ask for the recovery key in place of the password'
complete -c qv -n '__fish_seen_subcommand_from smart' -x -l minutes -a '1 2 5 15 30' \
    -d 'Close after so many minutes'
complete -c qv -n '__fish_seen_subcommand_from smart' -l close -d "Close the item's folder"
