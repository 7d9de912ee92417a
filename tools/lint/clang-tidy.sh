#!/usr/bin/env bash
# clang-tidy over every source file, or those below the folders in NUVIO_TIDY, each as the first of
# the given build trees that has it compiles it: tools/lint/clang-tidy.sh BUILD...
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

compiled_in() {
    sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$1/compile_commands.json" | sort -u
}

# The commands of a build tree without GCC's precompiled headers, which clang can't read, and without
# -Werror: what clang 19 itself warns of in GCC 12's own headers is no finding.
commands=$(mktemp -d)
trap 'rm -r "$commands"' EXIT
g++ -std=c++20 -O1 -fno-rtti -fPIC -shared -I /usr/lib/llvm-19/include tools/lint/own_code.cpp \
    -o "$commands/own_code.so"
status=0
read -ra folders <<<"${NUVIO_TIDY:-.}"
left=$(git ls-files -co --exclude-standard -- "${folders[@]}" | grep '\.cpp$' | grep -vxF tools/lint/own_code.cpp |
    xargs -r realpath | sort)
for build in "$@"; do
    sed 's/ -Winvalid-pch -include [^ ]*cmake_pch.hxx//; s/ -Werror//' "$build/compile_commands.json" \
        >"$commands/compile_commands.json"
    comm -12 <(echo "$left") <(compiled_in "$build") |
        xargs -r -n 1 -P "$(nproc)" clang-tidy-19 -p "$commands" --quiet \
            -load "$commands/own_code.so" --checks=nuvio-own-code 2>/dev/null || status=1
    left=$(comm -23 <(echo "$left") <(compiled_in "$build"))
done
if [ -n "$left" ]; then
    printf 'compiled in none of %s:\n%s\n' "$*" "$left"
    status=1
fi
exit $status
