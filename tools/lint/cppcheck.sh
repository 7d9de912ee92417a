#!/usr/bin/env bash
# cppcheck over everything; what it is wrong about is in cppcheck-suppressions.txt.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

cppcheck --quiet --error-exitcode=1 -j "$(nproc)" --std=c++20 --language=c++ \
    --enable=warning,performance,portability \
    --library=posix,gnu,googletest --library=tools/lint/cppcheck.cfg \
    --suppressions-list=tools/lint/cppcheck-suppressions.txt \
    -I src -I cores -I hosts/linux -I tests -I . \
    common reader src cores hosts controller tools bench tests
