#!/usr/bin/env bash
# Sizes of packages and of the programs and libraries in them, as shipped, in bytes:
#   sizes.sh PACKAGE.deb...
set -euo pipefail

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
for package in "$@"; do
    printf '%10d  %s\n' "$(stat -c %s "$package")" "$(basename "$package")"
    rm -rf "$folder/files"
    dpkg-deb -x "$package" "$folder/files"
    find "$folder/files" -type f \( -perm -u+x -o -name '*.so*' \) -printf '%10s      /%P\n' |
        sort -k2
done
