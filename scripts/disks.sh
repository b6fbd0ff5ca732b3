# USB disks for a gateway sandbox (scripts/sandbox.sh): a fresh file system
# image mounted at a directory, the way a gateway mounts what users plug in.
# Sourced by scripts/sample-gateway.sh and the system scenarios
# (tests/support/gateway-lib.sh).
#
#   disk_mount DIR FS SIZE_MB [ro]
#
# FS is one of
#   ext4   kernel ext4, loop-mounted (mount -o loop)
#   vfat   kernel FAT, loop-mounted
#   fat    FAT through FUSE: fusefat on a loop device
#   exfat  exFAT through FUSE: exfat-fuse (mount.exfat-fuse) on a loop device
#   ntfs   NTFS through FUSE: ntfs-3g on the image file
# The image, SIZE_MB large, lives in /run/disks (the sandbox's tmpfs) and is
# named after DIR's last component, which also gives the file system its
# serial or UUID where it has that form (ext4: a UUID; FAT and exFAT: XXXX-XXXX;
# NTFS: 16 hexadecimal digits). With
# "ro" the file system is mounted read-only (fill it first: disk_readonly).
# Returns 0 once DIR is that file system; otherwise 1, with the reason in
# DISK_WHY and DIR left as it was (a caller then says so and falls back).
#
# What outlives an unmount is ended with the sandbox: the FUSE drivers are
# processes of its PID namespace, which the kernel kills when the namespace's
# first process ends; each loop device is put in autoclear mode as soon as its
# user holds it open (mount -o loop does this itself, losetup -d does it for a
# device in use), so the kernel detaches it when the driver's last descriptor
# closes, however the sandbox ended.

DISK_WHY=""

# The FUSE driver of FS, or nothing.
disk_fuse_program() {
  case "$1" in
    fat) echo fusefat ;;
    exfat) echo mount.exfat-fuse ;;
    ntfs) echo ntfs-3g ;;
  esac
}

# What makes an image of FS: mkfs.ext4, mkfs.vfat, mkfs.exfat or mkntfs.
disk_mkfs_program() {
  case "$1" in
    ext4) echo mkfs.ext4 ;;
    vfat|fat) echo mkfs.vfat ;;
    exfat) echo mkfs.exfat ;;
    ntfs) echo mkntfs ;;
  esac
}

# disk_can FS: whether this machine can mount FS here; else DISK_WHY says why.
disk_can() {
  local fs=$1 mkfs fuse
  mkfs=$(disk_mkfs_program "$fs")
  [ -n "$mkfs" ] || { DISK_WHY="unknown file system $fs"; return 1; }
  if ! command -v "$mkfs" >/dev/null; then
    DISK_WHY="no $mkfs (scripts/setup.sh installs it)"; return 1
  fi
  fuse=$(disk_fuse_program "$fs")
  if [ -z "$fuse" ]; then
    grep -qw "$fs" /proc/filesystems || { DISK_WHY="this kernel has no $fs file system"; return 1; }
    return 0
  fi
  if ! grep -qw fuse /proc/filesystems; then
    DISK_WHY="this kernel has no FUSE"; return 1
  fi
  if ! { : <>/dev/fuse; } 2>/dev/null; then
    DISK_WHY="/dev/fuse cannot be opened"; return 1
  fi
  if ! command -v "$fuse" >/dev/null; then
    DISK_WHY="no $fuse (scripts/setup.sh installs it)"; return 1
  fi
}

# disk_image IMAGE FS SIZE_MB NAME: makes the file system; NAME is the mount
# directory's name (a UUID such as 4f2a91c3-..., or a FAT serial XXXX-XXXX).
disk_image() {
  local image=$1 fs=$2 size=$3 name=$4 serial out
  serial=${name//-/}
  truncate -s "${size}M" "$image" || return 1
  case "$fs" in
    ext4)
      local uuid=()
      [[ ! $name =~ ^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$ ]] || uuid=(-U "$name")
      out=$(mkfs.ext4 -q -F "${uuid[@]}" -L USBDISK -E root_owner=0:0 "$image" 2>&1) ;;
    vfat|fat)
      [[ $serial =~ ^[0-9A-Fa-f]{8}$ ]] || serial=$(printf '%08X' $((RANDOM * 65536 + RANDOM)))
      out=$(mkfs.vfat -i "$serial" -n USBSTICK "$image" 2>&1) ;;
    exfat)
      out=$(mkfs.exfat -L USBDISK "$image" 2>&1) &&
        if [[ $serial =~ ^[0-9A-Fa-f]{8}$ ]]; then out=$(tune.exfat -I "0x$serial" "$image" 2>&1); fi ;;
    ntfs)
      out=$(mkntfs -q -F -f -L USBDISK "$image" 2>&1) &&
        if [[ $serial =~ ^[0-9A-Fa-f]{16}$ ]]; then out=$(ntfslabel --new-serial="$serial" "$image" 2>&1); fi ;;
  esac || { DISK_WHY="$(disk_mkfs_program "$fs") failed: ${out%%$'\n'*}"; return 1; }
}

# disk_attach FS IMAGE DIR MODE: mounts the image (MODE rw or ro).
disk_attach() {
  local fs=$1 image=$2 dir=$3 mode=$4 out dev
  case "$fs" in
    ext4|vfat)
      out=$(mount -o "loop,$mode" "$image" "$dir" 2>&1) || { DISK_WHY="cannot loop-mount: ${out%%$'\n'*}"; return 1; } ;;
    ntfs)
      out=$(ntfs-3g -o "$mode" "$image" "$dir" 2>&1) || { DISK_WHY="ntfs-3g failed: ${out%%$'\n'*}"; return 1; } ;;
    fat|exfat)
      dev=$(losetup -f --show "$image" 2>&1) || { DISK_WHY="no loop device: ${dev%%$'\n'*}"; return 1; }
      # fusefat writes only when told it may ("rw+"); it chatters on stdout.
      [ "$fs:$mode" != fat:rw ] || mode=rw+
      if [ "$fs" = fat ]; then
        out=$(fusefat -o "$mode" "$dev" "$dir" 2>&1)
      else
        out=$(mount.exfat-fuse "$dev" "$dir" -o "$mode" 2>&1)
      fi || { losetup -d "$dev"; DISK_WHY="$(disk_fuse_program "$fs") failed: ${out##*$'\n'}"; return 1; }
      # The driver holds the device open now: detaching it only sets
      # autoclear, and the kernel detaches it when the driver lets go.
      losetup -d "$dev" ;;
  esac
  mountpoint -q "$dir" || { DISK_WHY="$(disk_fuse_program "$fs") mounted nothing at $dir"; return 1; }
}

disk_mount() {
  local dir=$1 fs=$2 size=$3 mode=${4:-rw} image
  # mkfs.*, losetup and the mount helpers live in sbin.
  local PATH=$PATH:/usr/sbin:/sbin
  DISK_WHY=""
  image=/run/disks/${dir##*/}.img
  mkdir -p "$dir" /run/disks
  disk_can "$fs" || return 1
  if disk_image "$image" "$fs" "$size" "${dir##*/}" && disk_attach "$fs" "$image" "$dir" "$mode"; then
    return 0
  fi
  rm -f "$image"
  return 1
}

# disk_readonly DIR: mounts the filled disk at DIR again, read-only. A kernel
# file system is remounted; a FUSE file system is unmounted, its driver is
# waited for (it writes out what it still holds) and started anew with "ro".
disk_readonly() {
  local dir=$1 fs PATH=$PATH:/usr/sbin:/sbin
  fs=$(findmnt -n -o FSTYPE --target "$dir")
  case "$fs" in
    fuse*)
      local image=/run/disks/${dir##*/}.img kind
      kind=$(blkid -o value -s TYPE "$image" 2>/dev/null)
      case "$kind" in vfat) kind=fat ;; exfat|ntfs) ;; *) DISK_WHY="unknown image $image"; return 1 ;; esac
      umount "$dir" && disk_wait_unmounted "$image" && disk_attach "$kind" "$image" "$dir" ro ;;
    *) mount -o remount,ro "$dir" ;;
  esac
}

# The FUSE driver ends a little after its unmount returns; a new one must not
# open the image while the old one still writes to it: wait until no process
# holds the image or a loop device on it.
disk_wait_unmounted() {
  for _ in $(seq 200); do
    if [ -z "$(losetup -j "$1" 2>/dev/null)" ] &&
       ! find /proc/[0-9]*/fd -lname "$1" 2>/dev/null | grep -q .; then
      return 0
    fi
    sleep 0.05
  done
  DISK_WHY="the driver of $1 did not end"; return 1
}

# disk_kind DIR: what DIR is, for a screen: "ext4", "FAT through FUSE
# (fusefat)", "tmpfs"...
disk_kind() {
  local source fs PATH=$PATH:/usr/sbin:/sbin
  read -r source fs < <(findmnt -n -o SOURCE,FSTYPE --target "$1")
  case "$fs" in
    fuse*)
      case "$(blkid -o value -s TYPE "/run/disks/${1##*/}.img" 2>/dev/null)" in
        vfat) echo "FAT through FUSE (fusefat)" ;;
        exfat) echo "exFAT through FUSE (exfat-fuse)" ;;
        ntfs) echo "NTFS through FUSE (ntfs-3g)" ;;
        *) echo "FUSE ($source)" ;;
      esac ;;
    *) echo "$fs" ;;
  esac
}
