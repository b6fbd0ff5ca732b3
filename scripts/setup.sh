#!/usr/bin/env bash
# Installs, from Debian's packages, everything zibd needs to build, run and be
# tested. Safe to run again: it installs only what is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev sqlite3
  g++-mips-linux-gnu qemu-user
  clang libclang-rt-14-dev
  dpkg-dev tcl
  libfaketime faketime
  util-linux mount procps
  # The sample gateway's disk images.
  e2fsprogs dosfstools
  # zibd-profile, the shipped profiler: MediaInfoLib (with ZenLib) and libexif.
  libmediainfo-dev libzen-dev libexif-dev
  # USB disks as gateways mount them, through FUSE (scripts/disks.sh): FAT,
  # NTFS, exFAT.
  fusefat ntfs-3g exfat-fuse exfatprogs
  # The install check (scripts/check-install.sh): manual pages, file types.
  groff-base file
)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo

# The MIPS build compiles SQLite from Debian's own source package
# (scripts/mips-sqlite.sh), so apt needs source entries: the machine's own
# Debian entries for this release, again with "Types: deb-src", in a file of
# our own. Rewritten, and the indexes updated, only when that changes.
debsrc_file=/etc/apt/sources.list.d/zibd-deb-src.sources
debsrc_entries() {
  local codename
  codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  [ -n "$codename" ] || { echo "setup: /etc/os-release names no VERSION_CODENAME" >&2; return 1; }
  # deb822 files: each enabled stanza of type deb for this release, without
  # its comments and with deb-src for its types.
  local f
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] && [ "$f" != "$debsrc_file" ] || continue
    awk -v codename="$codename" '
      BEGIN { RS = ""; FS = "\n" }
      {
        types = ""; suites = ""; enabled = "yes"; out = ""
        for (i = 1; i <= NF; i++) {
          line = $i
          if (line ~ /^#/) continue
          if (line ~ /^[^ \t]/) {
            key = tolower(line); sub(/:.*/, "", key)
            value = line; sub(/^[^:]*:[ \t]*/, "", value)
            if (key == "types") { types = " " value " "; line = "Types: deb-src" }
            else if (key == "suites") suites = " " value " "
            else if (key == "enabled") enabled = tolower(value)
          }
          out = out line "\n"
        }
        if (enabled == "no" || types !~ / deb / || types ~ / deb-src /) next
        if (suites !~ (" " codename "(-[a-z]+)? ")) next
        printf "%s\n", out
      }' "$f"
  done
  # One-line files: each "deb" line for this release as a deb822 stanza.
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk -v codename="$codename" '
      $1 != "deb" { next }
      {
        signed = ""; trusted = ""; i = 2
        if ($2 ~ /^\[/) {
          for (; i <= NF; i++) {
            opt = $i; gsub(/[][]/, "", opt)
            if (opt ~ /^signed-by=/) { signed = opt; sub(/^signed-by=/, "", signed) }
            if (opt ~ /^trusted=/) { trusted = opt; sub(/^trusted=/, "", trusted) }
            if ($i ~ /\]$/) { i++; break }
          }
        }
        uri = $i; suite = $(i + 1); components = ""
        for (j = i + 2; j <= NF && $j !~ /^#/; j++) components = components " " $j
        if (suite !~ ("^" codename "(-[a-z]+)?$")) next
        printf "Types: deb-src\nURIs: %s\nSuites: %s\nComponents:%s\n", uri, suite, components
        if (signed != "") printf "Signed-By: %s\n", signed
        if (trusted != "") printf "Trusted: %s\n", trusted
        printf "\n"
      }' "$f"
  done
}
entries=$(debsrc_entries)
update=0
if [ -n "$entries" ]; then
  wanted="# Written by zibd's scripts/setup.sh: Debian source packages (for scripts/mips-sqlite.sh).
$entries"
  if [ ! -f "$debsrc_file" ] || [ "$(cat "$debsrc_file")" != "$wanted" ]; then
    echo "setup: writing $debsrc_file"
    printf '%s\n' "$wanted" | $sudo tee "$debsrc_file" >/dev/null
    update=1
  fi
elif [ -f "$debsrc_file" ]; then
  # The machine's own entries carry deb-src already.
  $sudo rm -f "$debsrc_file"
  update=1
fi
# The source indexes must be there too (a fresh image may have no lists).
sources_indexes() { apt-get indextargets --format '$(FILENAME)' 'Created-By: Sources'; }
indexes=$(sources_indexes)
[ -n "$indexes" ] || update=1
while read -r index; do
  [ -z "$index" ] || compgen -G "$index*" >/dev/null || update=1
done <<<"$indexes"

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((update)) || ((${#missing[@]})); then
  $sudo apt-get update -qq
  [ -n "$(sources_indexes)" ] ||
    { echo "setup: apt has no deb-src entry for this release, and none could be derived from its deb entries" >&2; exit 1; }
fi
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
