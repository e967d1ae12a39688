#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Makes a release of the last commit in a new folder: source archive, Debian packages, bill of materials and checksums.
# Refuses when files are not committed or the places that name the version do not agree. scripts/test.sh comes first.
#   release.sh [DIR]     build-release without it
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly out=${1:-build-release}
version=$(sed -n 's/^#define FETCHRIG_VERSION "\(.*\)"/\1/p' include/fetchrig_types.h)

fail() {
  echo "release.sh: $*" >&2
  exit 1
}

# names_version FILE PATTERN: the first line that matches names the version.
names_version() {
  grep -m 1 -E "$2" "$1" | grep -qF "$version" || fail "$1 is not of version $version"
}

[ -z "$(git status --porcelain)" ] || fail "there are files that are not committed"
[ ! -e "$out" ] || fail "$out is there already"
names_version CHANGELOG.md '^## \['
names_version docs/fetchrig.1 '^\.TH'
names_version packaging/debian/changelog '^libfetchrig'
names_version packaging/openwrt/Makefile '^PKG_VERSION'
if grep -qF "## [$version] - Unreleased" CHANGELOG.md; then echo "Note: CHANGELOG.md has no date for $version yet"; fi

scripts/setup.sh release
scripts/packages.sh "$out"
scripts/reproducible.sh
(cd "$out" && sha256sum -- * >SHA256SUMS && sha256sum --quiet -c SHA256SUMS)
echo "Release $version: $out"
