#!/usr/bin/env bash
# Runs the checks of .clang-tidy over the library and the command, two files at a time. A file is looked at again when
# it has been compiled since it was last found fine, so that what did not change takes no time. Fails on any finding.
#   tidy.sh BUILD     the folder of an up-to-date build
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly build=$1

check() {
  local finding
  if ! finding=$(clang-tidy -p "$1/tidy" --quiet --warnings-as-errors='*' "$2" 2>/dev/null); then
    echo "$finding"
    return 1
  fi
  mkdir -p "$(dirname "$1/tidy/$2")"
  touch "$1/tidy/$2"
}
export -f check

# GCC's precompiled headers are nothing for clang.
mkdir -p "$build/tidy"
sed 's/-include [^ ]*cmake_pch\.hxx//' "$build/compile_commands.json" >"$build/tidy/compile_commands.json"

changed=()
for file in {log,core,net,http,ftp,tftp,cert,ringtone,cli}/*.cpp; do
  object=$build/CMakeFiles/fetchrig_objects.dir/$file.o
  if [[ $file == cli/* ]]; then object=$build/cli/CMakeFiles/fetchrig_command.dir/${file#cli/}.o; fi
  checked=$build/tidy/$file
  [[ $checked -nt $object && $checked -nt .clang-tidy ]] || changed+=("$file")
done

echo "${#changed[@]} files to look at"
if [ ${#changed[@]} -eq 0 ]; then exit 0; fi
printf '%s\n' "${changed[@]}" | xargs -P 2 -I {} bash -c 'check "$@"' _ "$build" {}
