#!/usr/bin/env bash
# Runs a command for which programs of another architecture start like the machine's own:
#   emulate.sh ARCHITECTURE COMMAND...
# Where the machine itself does not start them, the kernel is told how in a user namespace of the
# command's own (Linux 6.7). Needs root.
set -euo pipefail

architecture=$1
shift
name=qemu-$(dpkg-architecture -a "$architecture" -q DEB_HOST_GNU_CPU 2>/dev/null)
handlers=/proc/sys/fs/binfmt_misc
if [ "$architecture" = "$(dpkg --print-architecture)" ] || [ -e "$handlers/$name" ]; then
    exec "$@"
fi

folder=$(mktemp -d)
trap '[ -z "${namespace:-}" ] || kill "$namespace" 2>/dev/null || true; rm -r "$folder"' EXIT
mkfifo "$folder/unshared" "$folder/mapped"
# shellcheck disable=SC2016  # the namespace's shell expands them
unshare --user --mount bash -euc '
    echo >"$0/unshared"
    read -r _ <"$0/mapped"
    mount -t binfmt_misc binfmt_misc "$1"
    cat "/usr/lib/binfmt.d/$2.conf" >"$1/register"
    exec "${@:3}"' "$folder" "$handlers" "$name" "$@" &
namespace=$!
# It has its namespace, where the accounts are then to be the machine's.
read -r -t 30 _ <>"$folder/unshared"
echo "0 0 65536" >"/proc/$namespace/uid_map"
echo "0 0 65536" >"/proc/$namespace/gid_map"
echo >"$folder/mapped"
wait "$namespace"
