#!/bin/sh
# Turns the namespaces it runs in into a board: fresh /run, /boot, /tmp, /mnt, /media, /dev/shm and
# /sys, stand-ins for the tools that would change the host, a /bin/sh that logs each `sh -c` text.
# Prints "ready", then holds the board until its standard input ends.
#
#   unshare --mount --net --pid --ipc --uts --fork --mount-proc sandbox/setup.sh DIR...
#
# The folders named stay visible at their paths inside, wherever they lie.
set -eu
here=$(dirname "$(readlink -f "$0")")

mount -t tmpfs board /sys
mkdir -p /sys/firmware/devicetree/base /sys/class/thermal/thermal_zone0
mkdir -p /sys/board/bin /sys/board/kept /sys/board/app/daemon /sys/board/app/cams
cp "$(readlink -f /bin/sh)" /sys/board/sh
cp "$here/stand-in" "$here/logging-sh" /sys/board/
: > /sys/board/log
for name in ip ifconfig dhcpcd iw iwlist mount umount reboot sync killall tvservice \
            zerotier-cli raspivid; do
    ln -s ../stand-in /sys/board/bin/$name
done
cp /sys/board/stand-in /sys/board/app/cams/kill-cams.sh
cp /sys/board/stand-in /sys/board/app/daemon/otg-switcher.php

# Hold on to the folders that the fresh ones below may cover.
number=0
for folder in "$@"; do
    number=$((number + 1))
    mkdir "/sys/board/kept/$number"
    mount --rbind "$folder" "/sys/board/kept/$number"
done
for folder in /run /boot /tmp /mnt /media /dev/shm; do
    mount -t tmpfs board "$folder"
done
chmod 1777 /tmp /dev/shm
number=0
for folder in "$@"; do
    number=$((number + 1))
    [ -d "$folder" ] || mkdir -p "$folder"
    mount --rbind "/sys/board/kept/$number" "$folder"
done

ip link set lo up
mount --bind /sys/board/logging-sh "$(readlink -f /bin/sh)"
echo ready
exec cat > /dev/null
