# Completion for bash: the program lists the possible words.

_ime_backupctl() {
    local word prefix
    mapfile -t COMPREPLY < <(ime-backupctl complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    if [[ ${COMPREPLY[0]-} == :files ]]; then
        COMPREPLY=()
        compopt -o default 2>/dev/null
        return
    fi
    compopt -o nosort 2>/dev/null # numbers are in order already
    # Bash breaks words at colons and equals signs, and replaces only the text after the last one.
    word=${COMP_LINE:0:COMP_POINT}
    word=${word##*[[:space:]]}
    prefix=${word%"${word##*[:=]}"}
    COMPREPLY=("${COMPREPLY[@]#"$prefix"}")
}

complete -F _ime_backupctl ime-backupctl
