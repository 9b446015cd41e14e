# Completion for fish: the program lists the possible words.

function __ime_backupctl_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates (ime-backupctl complete -- $words[2..] 2>/dev/null)
    if test "$candidates[1]" = :files
        set -l option (string match -r -- '^--[^=]*=' $words[-1]; or echo)
        set candidates $option(__fish_complete_path (string replace -- "$option" '' $words[-1]))
    end
    printf '%s\n' $candidates
end

complete -c ime-backupctl -f -k -a '(__ime_backupctl_complete)'
