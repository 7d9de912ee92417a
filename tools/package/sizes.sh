#!/usr/bin/env bash
# Sizes in bytes of packages and of the programs and libraries in them; or, of a build tree, the
# sizes that the daemon and the two libraries have when stripped:
#   sizes.sh PACKAGE.deb... | BUILD-TREE
set -euo pipefail

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

of_package() {
    printf '%10d  %s\n' "$(stat -c %s "$1")" "$(basename "$1")"
    dpkg-deb -x "$1" "$folder/files"
    find "$folder/files" -type f \( -perm -u+x -o -name '*.so*' \) -printf '%10s      /%P\n' |
        sort -k2
    rm -r "$folder/files"
}

of_build_tree() {
    local strip file
    strip=$(sed -n 's/^CMAKE_STRIP:[A-Z]*=//p' "$1/CMakeCache.txt")
    for file in bin/nuvio-connect lib/libnuvio_connect.so lib/libnuvio_host.so; do
        "$strip" -o "$folder/stripped" "$1/$file"
        printf '%10d  %s\n' "$(stat -c %s "$folder/stripped")" "$(basename "$file")"
    done
}

for what in "$@"; do
    if [ -d "$what" ]; then of_build_tree "$what"; else of_package "$what"; fi
done
