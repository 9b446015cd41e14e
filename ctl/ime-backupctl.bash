# Completion for bash: the program itself knows what may stand where.

_ime_backupctl() {
    mapfile -t COMPREPLY < <(ime-backupctl complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    if [[ ${COMPREPLY[0]-} == :files ]]; then
        COMPREPLY=()
        compopt -o default 2>/dev/null
    fi
}

complete -F _ime_backupctl ime-backupctl
