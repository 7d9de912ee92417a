#!/usr/bin/env bash
# Makes the packages of a build tree, shows their sizes, looks at the hardening of what is in them,
# installs them into a clean root and tests them there. Needs root. Called by ./dev package.
set -euo pipefail

build=$(realpath "$1")
here=$(dirname "$(realpath "$0")")
out="$build/packages"

mandoc -Tlint -W warning "$here"/../../packaging/man/* "$here"/../../kit/*.1
rm -rf "$out"
(cd "$build" && cpack -B "$out" >"$build/cpack.log" 2>&1) || { cat "$build/cpack.log"; exit 1; }
rm -rf "$out/_CPack_Packages"
echo "package: in $out"
"$here/../lint/hardening.sh" "$build"
"$here/sizes.sh" "$out"/*.deb
"$here/../recipes/check.py" "$build"
echo "package: installing into a clean root"
"$here/make_root.sh" "$build/root" "$out"/*.deb >"$build/make_root.log" 2>&1 ||
    { cat "$build/make_root.log"; exit 1; }
"$here/../cross/emulate.sh" "$(dpkg-deb -f "$out"/nuvio-connect_*.deb Architecture)" \
    ctest --test-dir "$build" -L package --output-on-failure
