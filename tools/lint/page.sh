#!/usr/bin/env bash
# The controller's page: its types, its texts in their tables, and what oxlint says of it.
#
#   page.sh FOLDER    where npm puts what it takes (build/page)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

mkdir -p "$1"
cp controller/page/* controller/page/.npmrc "$1"
cd "$1"
npm ci --ignore-scripts --no-audit --no-fund --loglevel=error >/dev/null
npx --no-install tsc --project .
if grep -nE '>[A-Z][a-z]|(label|title|placeholder)="[A-Z]|say\("[^"]' ./*.tsx ./*.ts; then
    echo "page: what people read is in english.ts and its neighbours" >&2
    exit 1
fi
npx --no-install oxlint --quiet --deny-warnings -D correctness -D suspicious -A no-useless-concat -A no-unassigned-import \
    -A react-in-jsx-scope ./*.ts ./*.tsx ./*.js
