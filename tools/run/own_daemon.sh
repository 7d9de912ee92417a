#!/usr/bin/env bash
# Runs a daemon of the machine's a second time, for the processes of one test or one run alone:
#   own_daemon.sh system-bus FOLDER   a system bus at unix:path=FOLDER/system-bus
#   own_daemon.sh avahi FOLDER        Avahi on the loopback interface and on the system bus that the
#                                     environment names; needs root, for a /run of its own
# Becomes the daemon: it ends with this process's id.
set -euo pipefail
what=$1 folder=$2

case "$what" in
    system-bus)
        cat >"$folder/system-bus.conf" <<CONF
<busconfig><type>system</type><listen>unix:path=$folder/system-bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>
CONF
        exec dbus-daemon --nofork --nopidfile --config-file="$folder/system-bus.conf"
        ;;
    avahi)
        printf '[server]\nallow-interfaces=lo\n[publish]\npublish-workstation=no\n' \
            >"$folder/avahi.conf"
        exec unshare --mount sh -c 'mount -t tmpfs none /run && mkdir /run/avahi-daemon &&
            exec avahi-daemon -f "$0" --no-drop-root --no-chroot --no-rlimits' "$folder/avahi.conf"
        ;;
    *) exit 2 ;;
esac
