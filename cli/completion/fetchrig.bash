# SPDX-License-Identifier: MIT
# Completion of fetchrig for bash: the command itself says what may come; otherwise the names of files do.
_fetchrig() {
  mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null | cut -f1)
}
complete -o bashdefault -o default -F _fetchrig fetchrig
