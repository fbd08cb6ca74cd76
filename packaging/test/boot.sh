#!/bin/sh
# Turns its namespaces into a machine with the given root, and becomes its first process.
set -eu
root=$1

mount -t proc proc "$root/proc"
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=755 run "$root/run"

mount -t tmpfs -o mode=755 dev "$root/dev"
for name in null zero full random urandom tty; do
    : > "$root/dev/$name"
    mount --bind "/dev/$name" "$root/dev/$name"
done
ln -s /proc/self/fd "$root/dev/fd"
mkdir "$root/dev/shm" "$root/dev/pts"
mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"

ip link set lo up

mkdir -p "$root/mnt/host"
cd "$root"
pivot_root . mnt/host
umount -l /mnt/host
# As on a board: a service with mounts of its own sees what is mounted later.
mount --make-rshared /
exec setpriv --inh-caps=-all \
    --bounding-set=-sys_boot,-sys_module,-sys_time,-sys_rawio,-mknod,-syslog,-audit_control \
    env -i container=test PATH=/usr/sbin:/usr/bin /lib/systemd/systemd
