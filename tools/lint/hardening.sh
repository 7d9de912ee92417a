#!/usr/bin/env bash
# Checks that the programs and libraries of a release build were hardened as cmake/options.cmake
# says: tools/lint/hardening.sh BUILD
set -euo pipefail

build=$1
failed=0

# expect FILE WHAT PATTERN READELF-OPTIONS...
expect() {
    local file=$1 what=$2 pattern=$3
    grep -Eq "$pattern" <<<"$(readelf -W "${@:4}" "$file")" || {
        echo "$file: no $what"
        failed=1
    }
}

check() {
    local file=$1
    # A shared object too is position independent, or it could not be linked so.
    expect "$file" 'position-independent code' 'Type: +DYN' --file-header
    expect "$file" 'read-only relocations' 'GNU_RELRO' --program-headers
    expect "$file" 'immediate binding' 'FLAGS_1.*NOW' --dynamic
    expect "$file" 'stack that is not executable' 'GNU_STACK.* RW ' --program-headers
    expect "$file" 'stack protector' '__stack_chk_fail' --dyn-syms
    expect "$file" 'fortified calls' '__[a-z]+_chk(@|$| )' --dyn-syms
    expect "$file" 'assertions of the standard library' '__glibcxx_assert_fail' --dyn-syms
}

# A binary shows that some of its sources were compiled so, but not that all were, nor the level of
# the fortified calls: what the headers made of each source's flags tells the preprocessor.
check_sources() {
    local commands command macros macro
    mapfile -t commands < <(sed -n 's/^ *"command": "\(.*\.cpp\)",$/\1/p' \
        "$build/compile_commands.json" | sed 's/\\\(.\)/\1/g')
    for command in "${commands[@]:?no sources in $build}"; do
        macros=$(eval "${command% -o *} -E -dM -include cstdlib -x c++ /dev/null")
        for macro in '_GLIBCXX_ASSERTIONS 1' '__USE_FORTIFY_LEVEL 3'; do
            grep -qxF "#define $macro" <<<"$macros" || {
                echo "${command##* }: compiled without $macro"
                failed=1
            }
        done
    done
}

for file in "$build"/bin/nuvio-connect{,-controller} "$build"/lib/libnuvio_{connect,host}.so; do
    check "$file"
done
check_sources
exit $failed
