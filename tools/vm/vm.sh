#!/usr/bin/env bash
# Makes the packages of a build tree, installs them into a virtual machine and tests them there on
# the kernel's own sound drivers: vm.sh BUILD-TREE FOLDER [--short]. Needs root, not KVM. Called by
# ./dev vm.
set -euo pipefail

build=$(realpath "$1")
mkdir -p "$2"
folder=$(realpath "$2")
here=$(dirname "$(realpath "$0")")
# Those of a device as the README installs it, and the controller, for its unit. The others bring a
# hundred libraries, or nothing that plays; that they install is ./dev package's.
components="daemon;core;reader;host;controller"

cannot() { # Without CI a machine that can't be made fails nobody's work.
    echo "vm: not run: $*"
    [ -z "${CI:-}" ] && exit 0
    exit 1
}

took() { # What, and how long since the last time
    echo "vm: $1 in $((SECONDS - began)) s"
    began=$SECONDS
}

[ "$(id -u)" = 0 ] || cannot "needs root to make the machine's disk"
began=$SECONDS
rm -rf "$folder/packages"
(cd "$build" && cpack -D CPACK_COMPONENTS_ALL="$components" -B "$folder/packages" \
    >"$folder/cpack.log" 2>&1) || { cat "$folder/cpack.log"; exit 1; }
took "packages made"
architecture=$(dpkg-deb -f "$folder/packages"/nuvio-connect_*.deb Architecture)
"$here/../cross/emulate.sh" "$architecture" "$here/make_image.sh" "$folder" "$folder/packages"/*.deb \
    >"$folder/make_image.log" 2>&1 ||
    { tail -n 20 "$folder/make_image.log"; cannot "the machine's disk could not be made"; }
took "disk made"
exec "$here/run.py" "$architecture" "$folder" "${@:3}"
