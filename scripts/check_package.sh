#!/usr/bin/env bash
# Builds the Debian packages, and installs, runs, removes and purges them in a copy of this system that is thrown away: an overlay
# whose changes are in memory and go with the mount namespace. Fails when a step does, or when the purge leaves a file.

source "$(dirname "$0")/prepare.sh"
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
packages=$(scripts/package.sh)

"${as_root[@]}" unshare --mount --pid --fork --kill-child bash -euo pipefail -s $packages <<'THROW_AWAY' >&2
mount -t tmpfs none /mnt
mkdir /mnt/changes /mnt/work /mnt/root
mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/changes,workdir=/mnt/work /mnt/root
mount --rbind /dev /mnt/root/dev
mount -t proc proc /mnt/root/proc
mkdir /mnt/root/packages
cp "$@" /mnt/root/packages

chroot /mnt/root bash -euo pipefail <<'INSIDE'
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq --no-install-recommends -o Dpkg::Use-Pty=0 /packages/*.deb
mkdir -p /run/reservationd /var/lib/reservation_manager    # as the unit's RuntimeDirectory and StateDirectory do
reservationd &
until reservationctl status >/dev/null 2>&1; do kill -0 $!; sleep 0.02; done
reservationctl create A --pkey 0x8001 --guids 0x10-0x17
kill $!
wait $!
reservation-slurm check
SLURM_JOB_ID=1 SLURM_JOB_COMMENT=trees=0 /usr/lib/reservation-slurm/prolog
apt-get remove -y -qq -o Dpkg::Use-Pty=0 'reservation-manager*'
ls /var/lib/reservation_manager/reservation.A /etc/reservationd.conf    # survive the removal, and not the purge
apt-get purge -y -qq -o Dpkg::Use-Pty=0 'reservation-manager*'
rm -r /run/reservationd /packages
INSIDE

left=$(find /mnt/changes -name '*reservation*')
[ -z "$left" ] || { echo "The purge leaves:" $left; exit 1; }
echo "Installed, ran and were purged without a trace:" "$@"
THROW_AWAY
