#!/usr/bin/env bash
# Makes the packages of a build tree, installs them into a virtual machine and tests them there on
# the kernel's own sound drivers: vm.sh BUILD-TREE FOLDER. Needs root, not KVM. Called by ./dev vm.
set -euo pipefail

build=$(realpath "$1")
mkdir -p "$2"
folder=$(realpath "$2")
here=$(dirname "$(realpath "$0")")

cannot() { # Without CI a machine that can't be made fails nobody's work.
    echo "vm: not run: $*"
    [ -z "${CI:-}" ] && exit 0
    exit 1
}

[ "$(id -u)" = 0 ] || cannot "needs root to make the machine's disk"
command -v qemu-system-x86_64 >/dev/null || cannot "no qemu-system-x86_64 (./dev setup)"
rm -rf "$folder/packages"
(cd "$build" && cpack -B "$folder/packages" >"$folder/cpack.log" 2>&1) ||
    { cat "$folder/cpack.log"; exit 1; }
rm -f "$folder/packages"/nuvio-connect-dev_*.deb  # nothing is built there
"$here/make_image.sh" "$folder" "$folder/packages"/*.deb >"$folder/make_image.log" 2>&1 ||
    { tail -n 20 "$folder/make_image.log"; cannot "the machine's disk could not be made"; }
exec "$here/run.py" "$folder"
