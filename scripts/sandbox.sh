#!/usr/bin/env bash
# Runs a command inside a private gateway sandbox, so that the fixed paths the
# daemon and its platform libraries use ("/var/uuidmount", "/rw", "/tmp/.kord",
# "/var/kord", "/run") are fresh and private and nothing on the host changes.
#
#   scripts/sandbox.sh COMMAND [ARG]...
#
# The sandbox is a new mount and PID namespace (a user namespace too when not
# root) whose root is a tmpfs: the host's top-level directories are bound into
# it, except /tmp, /run, /var, /rw and /mnt, which are new empty tmpfs mounts,
# and /proc, which shows the sandbox's own processes. Every process left in
# the sandbox ends with it: the FUSE drivers of its disks too (scripts/disks.sh
# puts their loop devices in autoclear mode, so the kernel detaches them then). The command runs in the current directory; it, the
# repository and every directory named in ZIBD_SANDBOX_KEEP (colon-separated,
# e.g. a build directory under /tmp) stay visible at their own paths.
set -euo pipefail
(($#)) || { echo "usage: sandbox.sh COMMAND [ARG]..." >&2; exit 2; }

if [ "${ZIBD_IN_SANDBOX:-}" != 1 ]; then
  userns=()
  [ "$(id -u)" -eq 0 ] || userns=(--user --map-root-user)
  export ZIBD_IN_SANDBOX=1
  exec unshare "${userns[@]}" --mount --propagation private --pid --fork "$0" "$@"
fi

# The new root is staged on /mnt, which this namespace alone sees shadowed.
root=/mnt
mount -t tmpfs -o mode=0755 zibd-root "$root"
for entry in /*; do
  name=${entry#/}
  if [ -L "$entry" ]; then
    ln -s "$(readlink "$entry")" "$root/$name"
    continue
  fi
  [ -d "$entry" ] || continue
  case "$name" in
    tmp|run|var|rw|mnt|proc|lost+found) ;;
    *) mkdir "$root/$name" && mount --rbind "$entry" "$root/$name" ;;
  esac
done
mkdir "$root/proc"
mount -t proc zibd-proc "$root/proc"
for name in tmp run var rw mnt; do
  mkdir "$root/$name"
  mount -t tmpfs -o mode=1777 "zibd-$name" "$root/$name"
done
mkdir -p "$root/var/uuidmount" "$root/var/kord/meta" "$root/tmp/.kord"
ln -s /run "$root/var/run"

# The repository, the current directory and ZIBD_SANDBOX_KEEP stay visible at
# their own paths, also when they lie below one of the directories replaced
# above.
repo=$(cd "$(dirname "$0")/.." && pwd)
IFS=: read -r -a extra <<<"${ZIBD_SANDBOX_KEEP:-}"
for keep in "$repo" "$PWD" "${extra[@]}"; do
  [ -n "$keep" ] || continue
  keep=$(cd "$keep" && pwd -P) || { echo "sandbox.sh: cannot keep $keep" >&2; exit 2; }
  case "$keep" in
    /tmp/*|/run/*|/var/*|/rw/*)
      if ! mountpoint -q "$root$keep"; then
        mkdir -p "$root$keep" && mount --rbind "$keep" "$root$keep"
      fi ;;
  esac
done

cwd=$PWD
exec chroot "$root" /bin/sh -c 'cd "$1" && shift && exec "$@"' sandbox "$cwd" "$@"
