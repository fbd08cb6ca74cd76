#!/bin/sh
# Runs a Debian machine in namespaces until standard input ends. systemd boots in it, and boots
# again each time it ends, as in a reboot. Needs root. The machine neither sees nor changes the
# host: it has its own mounts, network, processes, shared memory, host name and control groups,
# /proc/sys and /sys are read-only, and it cannot reboot the host, load modules or set the clock.
#
#   unshare --mount machine.sh PLACE LAYERS
#
# What the machine writes goes to PLACE/disk, on top of the folders LAYERS ("upper:lower").
set -eu
here=$(dirname "$(readlink -f "$0")")
place=$1
mkdir -p "$place/disk" "$place/work" "$place/root" "$place/cgroups"
mount -t overlay overlay "$place/root" \
    -o "lowerdir=$2,upperdir=$place/disk,workdir=$place/work"
# systemd needs control groups that it can write to, so it gets its own group among the host's.
mount -t cgroup2 cgroup2 "$place/cgroups"
group=$place/cgroups/quillorbeacon-test-$$

boot() {
    mkdir -p "$group"
    sh -c 'echo $$ > "$0/cgroup.procs"; exec "$@"' "$group" \
        unshare --mount --net --pid --ipc --uts --cgroup --fork --kill-child=KILL \
        "$here/boot.sh" "$place/root" < /dev/null >> "$place/console" 2>&1 &
    echo $! > "$place/runner.new"
    mv "$place/runner.new" "$place/runner"
    wait $! || true
    find "$group" -depth -type d -exec rmdir {} \;
}

(while :; do boot; done) &
loop=$!
cat > /dev/null
kill -9 "$loop"
kill -9 "$(cat "$place/runner")"
# The kernel takes a moment to empty the group.
until find "$group" -depth -type d -exec rmdir {} \; 2> /dev/null && [ ! -d "$group" ]; do
    sleep 0.05
done
