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
}

for file in "$build"/bin/nuvio-connect{,-controller} "$build"/lib/libnuvio_{connect,host}.so; do
    check "$file"
done
exit $failed
