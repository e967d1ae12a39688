#!/usr/bin/env bash
# Checks what each folder of the library includes and which calls it makes. Prints each offence; fails when there
# is one.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# A folder, then the folders whose headers its files may include beside its own. The public headers are for all.
layers='
log:
core: log
net: core log
http: net core log
ftp: net core log
tftp: net core log
cert: core log
ringtone: core log
'
# What goes beyond its folder's line, as "file included-file" patterns.
exceptions='
net/tls.cpp cert/tls_context.h
'

# Calls that have no place near outside bytes, and those that are wrapped in one place.
banned='sscanf|vsscanf|atoi|atol|atoll|atof|strtok|strtok_r|strcpy|strcat|stpcpy|sprintf|vsprintf|gets|tmpnam|tempnam|mktemp|alloca|isdigit|isspace|isalpha|isalnum|isupper|islower|isxdigit|tolower|toupper'
# "file call" patterns: exported helpers that stand for such a call.
allowed='
core/helpers.cpp (strtok_r|vsprintf)
'

offences=0
offence() {
  echo "$1"
  offences=$((offences + 1))
}

# whether "$1 $2" matches a line of "$3"
is_listed() {
  local line
  while read -r line; do
    if [ -n "$line" ] && [[ "$1 $2" =~ ^$line$ ]]; then return 0; fi
  done <<<"$3"
  return 1
}

check_includes() {
  local folder=$1 may=" include $1 $2 " file included
  while IFS=: read -r file included; do
    included=${included#*\"}
    included=${included%%\"*}
    case $included in
      */*) [[ $may == *" ${included%%/*} "* ]] || is_listed "$file" "$included" "$exceptions" ||
        offence "$file: $folder/ may not include $included" ;;
      *) offence "$file: \"$included\" is without its folder" ;;
    esac
  done < <(grep -H '^ *# *include *"' "$folder"/*.cpp "$folder"/*.h 2>/dev/null)
}

# The command sees the public headers alone, beside its own files.
check_command() {
  local file included
  while IFS=: read -r file included; do
    included=${included#*\"}
    included=${included%%\"*}
    [[ $included =~ ^fetchrig(_openssl)?\.h$ ]] || [ -e "cli/$included" ] || [[ $included == cli/* ]] ||
      offence "$file: cli/ may not include $included"
  done < <(grep -H '^ *# *include *"' cli/*.cpp cli/*.h 2>/dev/null)
}

check_calls() {
  local file line text call
  while IFS=: read -r file line text; do
    call=$(grep -oE "\b($banned) *\(" <<<"$text" | head -n 1 | tr -d ' (')
    is_listed "$file" "$call" "$allowed" || offence "$file:$line: $call() is banned"
  done < <(grep -nE "(^|[^A-Za-z0-9_.>\"])($banned) *\(" {log,core,net,http,ftp,tftp,cert,ringtone,cli}/*.{cpp,h} 2>/dev/null |
    grep -vE '^[^:]*:[0-9]+: *//' || true)
}

check_headers() {
  grep -nE '# *include *<(iostream|fstream|sstream|regex|locale)>' {log,core,net,http,ftp,tftp,cert,ringtone}/*.{cpp,h} 2>/dev/null |
    while read -r found; do echo "$found: too large for the library"; done
}

while IFS=: read -r folder may; do
  if [ -n "$folder" ]; then check_includes "$folder" "$may"; fi
done <<<"$layers"
check_command
check_calls
large=$(check_headers || true)
if [ -n "$large" ]; then offence "$large"; fi

if grep -nE '<openssl/|^ *(class|namespace|template) ' include/fetchrig.h; then
  offence "include/fetchrig.h: OpenSSL or C++ in the plain C header"
fi
[ "$offences" -eq 0 ] || { echo "$offences offences"; exit 1; }
echo "Layers and calls: fine"
