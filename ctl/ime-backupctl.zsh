#compdef ime-backupctl
# Completion for zsh: the program lists the possible words.

local -a candidates
candidates=("${(@f)$(ime-backupctl complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
if [[ ${candidates[1]} == :files ]]; then
    compset -P '--*='
    _files
else
    compadd -V candidates -a candidates # numbers are in order already
fi
