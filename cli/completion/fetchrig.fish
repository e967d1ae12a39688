# SPDX-License-Identifier: MIT
# Completion of fetchrig for fish: the command itself says what may come; otherwise the names of files do.
function __fetchrig_words
    set -l words (commandline -opc) (commandline -ct)
    $words[1] __complete $words[2..-1] 2>/dev/null
end
complete -c fetchrig -f -n 'count (__fetchrig_words) >/dev/null' -a '(__fetchrig_words)'
