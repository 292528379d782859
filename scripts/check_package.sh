#!/usr/bin/env bash
# Builds the Debian package, and installs, runs, removes and purges it in a copy of this system that is thrown away: an overlay
# whose changes are in memory and go with the mount namespace. Fails when a step does, or when the purge leaves a file.

source "$(dirname "$0")/prepare.sh"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
package=$(scripts/package.sh)

"${as_root[@]}" unshare --mount --pid --fork --kill-child bash -euo pipefail -s "$package" <<'THROW_AWAY' >&2
mount -t tmpfs none /mnt
mkdir /mnt/changes /mnt/work /mnt/root
mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/changes,workdir=/mnt/work /mnt/root
mount --rbind /dev /mnt/root/dev
mount -t proc proc /mnt/root/proc
cp "$1" /mnt/root/package.deb

chroot /mnt/root bash -euo pipefail <<'INSIDE'
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq -o Dpkg::Use-Pty=0 /package.deb
mkdir -p /run/reservationd /var/lib/reservation_manager    # as the unit's RuntimeDirectory and StateDirectory do
reservationd &
until reservationctl status >/dev/null 2>&1; do kill -0 $!; sleep 0.02; done
reservationctl create A --pkey 0x8001 --guids 0x10-0x17
kill $!
wait $!
apt-get remove -y -qq -o Dpkg::Use-Pty=0 reservation-manager
ls /var/lib/reservation_manager/reservation.A /etc/reservationd.conf    # survive the removal, and not the purge
apt-get purge -y -qq -o Dpkg::Use-Pty=0 reservation-manager
rmdir /run/reservationd
INSIDE

left=$(find /mnt/changes -name '*reservation*')
[ -z "$left" ] || { echo "The purge leaves:" $left; exit 1; }
echo "Installed, ran and was purged without a trace: $1"
THROW_AWAY
