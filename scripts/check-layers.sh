#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks the walls between the library's folders. Prints each offence; fails when there is one.
#   check-layers.sh           what the files include, and banned calls
#   check-layers.sh BUILD     also what the objects built in that folder call: a declaration of one's own needs no
#                             include, and a call within reach may still be none of the folder's business
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# A folder, then the folders whose headers and functions its files may use beside its own.
layers='
log:
core: log
net: core log
http: net core log
ftp: net core log
tftp: net core log
cert: core log
ringtone: http core log
'
# What goes beyond its folder's line: "file used", patterns, where what is used is a header or a file that defines
# something. Each is needed, or it is an offence itself.
exceptions='
net/tls.cpp cert/tls_context.(h|cpp)         # the device certificate and its key are loaded by the rules of cert/
'
# Exported data, which has no function in front of it: "name file" for each file that may name it.
exported_data='
g_dl_cfg core/config.cpp            # defines it
g_dl_cfg core/process_lock.cpp      # holds its lock while the process forks
ring_tab ringtone/ringtone.cpp
wave_fmt ringtone/ringtone.cpp
'
# The public headers are for applications. exports.cpp alone sees them, everybody the types; exported functions are
# defined there, and called by applications. "file header-or-function" for what goes beyond that.
public='include/fetchrig(_openssl)?\.h'
public_uses='
core/dispatch(_upload)?.cpp include/fetchrig.h              # a call by URL is a call of one protocol, with
core/dispatch(_upload)?.cpp dl_(http|ftp|tftp)_[a-z_]+      # its checks of arguments and its guard
'

# Calls that have no place near outside bytes, and those that are wrapped in one place.
banned='sscanf|vsscanf|atoi|atol|atoll|atof|strtok|strtok_r|strcpy|strcat|stpcpy|sprintf|vsprintf|gets|tmpnam|tempnam'
banned+='|mktemp|alloca|isdigit|isspace|isalpha|isalnum|isupper|islower|isxdigit|tolower|toupper'
# "file call": exported helpers that stand for such a call.
allowed='
core/exports.cpp (strtok_r|vsprintf)
'

# What can be switched on, or left out of the build, is in LAYER/extra/. The classic way reaches it here alone: files
# that may include a header of extra/.
seams='
http/http_connection.cpp http/extra/known_sessions.h  # TLS may go on with a session
http/http_download.cpp http/extra/http_resume.h       # a download may go on with a part
http/http_session.h http/extra/(whole_body|kept_connections).h   # responses are whole or classic, connections kept
http/http_message.h http/extra/streamed_body.h       # a file is streamed or held
ftp/ftp_(stream.h|(data|session|upload).cpp) ftp/extra/ftp_extras.h  # what holds for a session
ftp/ftp_download.h ftp/extra/ftp_resume.h             # a download begins anew or goes on
tftp/tftp_(download|upload|session).cpp tftp/extra/tftp_windowed.h  # a transfer is negotiated or classic
http/http_open.cpp http/extra/http_extras.h              # the policy of an exchange
'

readonly folders=$(sed -n 's/:.*//p' <<<"$layers")
declare -A used=()
offences=0
offence() {
  echo "$1"
  offences=$((offences + 1))
}

# The files of the library with these endings: sources ENDING...
sources() {
  local folder ending
  for folder in $folders; do
    for ending in "$@"; do printf '%s\n' "$folder"/*."$ending" "$folder"/extra/*."$ending"; done
  done | grep -v '[*]'
}

# Whether "$1 $2" matches a line of the list named $3. Remembers the line.
is_listed() {
  local line
  while read -r line; do
    line=${line%%#*}
    line=${line%"${line##*[! ]}"}
    if [ -n "$line" ] && [[ "$1 $2" =~ ^$line$ ]]; then
      used["$3 $line"]=1
      return 0
    fi
  done <<<"${!3}"
  return 1
}

# Whether a file of the library may use what is in another file of it.
may_use() {
  local folder=${1%%/*} other=${2%%/*}
  [ "$folder" = "$other" ] || [[ " $(sed -n "s/^$folder: *//p" <<<"$layers") " == *" $other "* ]] ||
    is_listed "$1" "$2" exceptions
}

check_includes() {
  local file included
  while IFS=: read -r file included; do
    included=${included#*[\"<]}
    included=${included%%[\">]*}
    if [[ $included == *..* ]]; then offence "$file: \"$included\" leaves its folder"
    elif [[ $included =~ ^$public$ ]]; then
      [[ $file == */exports.cpp ]] || is_listed "$file" "$included" public_uses ||
        offence "$file: $included is for applications"
    elif [[ $included != */* ]]; then offence "$file: \"$included\" is without its folder"
    elif [[ $included != include/* ]]; then
      may_use "$file" "$included" || offence "$file: ${file%%/*}/ may not include $included"
      [[ $included != */extra/* || $file == */extra/* ]] || is_listed "$file" "$included" seams ||
        offence "$file: $included is beside the classic way"
    fi
  done < <(sources cpp h | xargs grep -HE "^ *# *include *(\"|<(${folders//$'\n'/|}|include|cli)/)")
}

# The command sees the public headers alone, beside its own files.
check_command() {
  local file included
  while IFS=: read -r file included; do
    included=${included#*\"}
    included=${included%%\"*}
    [[ $included =~ ^fetchrig(_openssl)?\.h$ ]] || [[ $included != */* && -e cli/$included ]] ||
      offence "$file: cli/ may not include $included"
  done < <(grep -H '^ *# *include *"' cli/*.cpp cli/*.h)
}

check_banned_calls() {
  local file line text call
  while IFS=: read -r file line text; do
    call=$(grep -oE "\b($banned) *\(" <<<"$text" | head -n 1 | tr -d ' (')
    is_listed "$file" "$call" allowed || offence "$file:$line: $call() is banned"
  done < <((sources cpp h; ls cli/*.{cpp,h}) | xargs grep -nHE "(^|[^A-Za-z0-9_.>\"])($banned) *\(" |
    grep -vE '^[^:]*:[0-9]+: *//' || true)
}

check_headers() {
  local found
  while read -r found; do
    [ -z "$found" ] || offence "$found: too large for the library"
  done < <(sources cpp h | xargs grep -nHE '# *include *<(iostream|fstream|sstream|regex|locale)>' || true)
  if grep -nE '<openssl/|^ *(class|namespace|template) ' include/fetchrig.h include/fetchrig_types.h; then
    offence "include/: OpenSSL or C++ in a plain C header"
  fi
}

# Each file has a header of its own, but for exports.cpp, which the public headers declare, and what extra/ defines for
# a header of its layer.
check_own_headers() {
  local file header
  while read -r file; do
    header=${file%.cpp}.h
    [[ $file == */exports.cpp ]] || [ -e "$header" ] || [ -e "${header/extra\//}" ] ||
      offence "$file: has no header of its own"
  done < <(sources cpp)
}

# The symbols of the objects in $1: "file U name" where a file needs one, "file T name" where it defines one. Weak
# ones (templates, inline functions) belong to the header that they come from.
symbols() {
  sources cpp | sed "s|.*|$1/&.o|" | xargs nm -A --no-sort --format=posix |
    sed -nE 's|^'"$1"'/([^:]*)\.o: ([^ ]+) ([UTDBRC]) .*|\1 \3 \2|; T; s/ [DBRC] / T /; p'
}

check_symbols() {
  local objects=$1/CMakeFiles/fetchrig_objects.dir file name home
  [ -d "$objects" ] || { echo "$objects: not built"; exit 2; }
  local exported=" $(sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9_]*\);.*/\1/p' cmake/fetchrig.map | tr '\n' ' ') "
  # file, name, file that defines it; for a definition twice the same file
  while read -r file name home; do
    if [[ $exported == *" $name "* ]]; then
      is_listed "$name" "$file" exported_data && continue
      if [ "$file" = "$home" ]; then
        [[ $file == */exports.cpp ]] || offence "$file: defines $name, which belongs in exports.cpp"
      else
        is_listed "$file" "$name" public_uses || offence "$file: uses the exported $name"
      fi
    elif ! may_use "$file" "$home"; then
      offence "$file: ${file%%/*}/ may not use $(c++filt "$name") of $home"
    fi
  done < <(symbols "$objects" | awk '
    { kind[NR] = $2; file[NR] = $1; name[NR] = $3 }
    $2 == "T" { home[$3] = $1 }
    END { for (i = 1; i <= NR; ++i) if (name[i] in home) print file[i], name[i], home[name[i]] }')
}

# An exception that nothing needs is a hole in the wall.
check_lists() {
  local list line
  for list in "$@"; do
    while read -r line; do
      line=${line%%#*}
      line=${line%"${line##*[! ]}"}
      [ -z "$line" ] || [ -n "${used["$list $line"]:-}" ] || offence "$0: nothing needs \"$line\""
    done <<<"${!list}"
  done
}

check_includes
check_command
check_banned_calls
check_headers
check_own_headers
if [ $# -gt 0 ]; then
  check_symbols "$1"
  check_lists exceptions seams public_uses exported_data allowed
fi
[ "$offences" -eq 0 ] || { echo "$offences offences"; exit 1; }
echo "Layers and calls: fine"
