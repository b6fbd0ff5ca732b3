#!/usr/bin/env bash
# A tag database written by the gateway's kordctl (big-endian MIPS, emulated) is read
# and changed by the host's, and the other way round; each reads the other's changes.
set -euo pipefail
(($# >= 2)) || { echo "usage: exchange.sh HOST_KORDCTL TARGET_KORDCTL [EMULATOR [ARG]...]" >&2; exit 2; }
host=("$1")
target=("${@:3}" "$2")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Keep the library off the fixed paths; every call names its database.
export KORD_INI=$tmp/kord.ini KORD_UPDATE=$tmp/update KORD_VIEWS=$tmp/views LC_ALL=C
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
# Runs a kordctl (host or target, an array name) on database $db.
run() { local -n side=$1; shift; "${side[@]}" --db "$db" "$@"; }
# expect WHAT FILE COMMAND...: the command succeeds and prints exactly FILE's bytes.
expect() {
  local what=$1 expected=$2; shift 2
  if ! "$@" >"$tmp/out" 2>"$tmp/err"; then
    fail "$what: '$*' failed: $(cat "$tmp/err")"
  elif ! cmp -s "$expected" "$tmp/out"; then
    fail "$what: unexpected output"
    diff <(od -c "$expected") <(od -c "$tmp/out") | head -n 20 >&2 || true
  fi
}
root=/var/uuidmount/4f2a-91c3
film=$root/Media/Movies/holiday.mkv
song=$root/Media/Music/$'M\xc3\xbcller\n\xe2\x80\x94 Caf\xc3\xa9'.mp3  # a newline too
hash=9e107d9d372bb6826bd81d3542a419d6
title=$'Caf\xc3\xa9 \xe2\x80\x94 \xff\xfe\x80\xa0\nend'  # UTF-8, bytes that are not, a newline
long=$(printf 'chunk-%04d:\xc3\xa4\xc3\xb6\xc3\xbc;' $(seq 400))  # spills onto overflow pages
# Long directory names: the tables and the path index span several B-tree pages.
deep=$root/Media/Pictures/$(printf 'directory-with-a-long-name-%03d/' $(seq 8))

# exchange WRITER READER: WRITER fills a new database, READER checks and changes it.
exchange() {
  local writer=$1 reader=$2
  db=$tmp/$writer-to-$reader.db
  : >"$db"
  echo "== written by the $writer kordctl, read by the $reader kordctl"
  run "$writer" set "$film" .s.hash "$hash" .s.filetype STDVIDEO .s.title "$title" .s.note "$long"
  run "$writer" set "$song" .s.filetype STDAUDIO .s.tbp 1 .s.mdt 1700000000
  run "$writer" del "$song" .s.mdt
  local i pictures=()
  for i in $(seq 12); do
    pictures+=("${deep}IMG_$(printf %04d "$i").JPG")
    run "$writer" set "${pictures[-1]}" .s.filetype STDIMAGE .s.hash "$i$hash"
  done
  # Lists are read NUL-separated (-0): names and values may hold newlines.
  printf '%s\0' ".s.filetype=STDVIDEO" ".s.hash=$hash" ".s.note=$long" ".s.title=$title" >"$tmp/film"
  expect "$reader reads the film's tags" "$tmp/film" run "$reader" -0 tags "$film"
  printf '%s\0' ".s.filetype=STDAUDIO" ".s.tbp=1" >"$tmp/song"
  expect "$reader reads the song's tags" "$tmp/song" run "$reader" -0 tags "$song"
  printf '%s\0' ".s.filetype=STDIMAGE" ".s.hash=7$hash" >"$tmp/picture"
  expect "$reader reads a picture's tags" "$tmp/picture" run "$reader" -0 tags "${pictures[6]}"
  printf '%s\0' "$film" "$song" "${pictures[@]}" | sort -z >"$tmp/files"
  expect "$reader lists the files" "$tmp/files" run "$reader" -0 files "$root"
  printf '%s\0' "$song" >"$tmp/query"
  expect "$reader queries" "$tmp/query" run "$reader" -0 query "@.s.tbp@ exists and @.s.filetype@='STDAUDIO'"
  printf '%s\n' "files 14" ".s.tbp 1" ".s.filetype=STDAUDIO 1" ".s.filetype=STDIMAGE 12" \
    ".s.filetype=STDVIDEO 1" >"$tmp/stats"
  expect "$reader counts" "$tmp/stats" run "$reader" stats
  # The reader changes the database; the writer sees the changes.
  run "$reader" set "$song" .s.hash "$title"
  run "$reader" del "$song" .s.tbp
  run "$reader" del "$film" .s.note
  run "$reader" set "${pictures[0]}" .s.filetype STDVIDEO
  printf '%s\0' ".s.filetype=STDAUDIO" ".s.hash=$title" >"$tmp/song"
  expect "$writer reads the song's new tags" "$tmp/song" run "$writer" -0 tags "$song"
  printf '%s\0' ".s.filetype=STDVIDEO" ".s.hash=$hash" ".s.title=$title" >"$tmp/film"
  expect "$writer reads the film's remaining tags" "$tmp/film" run "$writer" -0 tags "$film"
  printf '%s\n' "files 14" ".s.tbp 0" ".s.filetype=STDAUDIO 1" ".s.filetype=STDIMAGE 11" \
    ".s.filetype=STDVIDEO 2" >"$tmp/stats"
  expect "$writer counts" "$tmp/stats" run "$writer" stats
}
exchange target host
exchange host target
((failures == 0)) || { echo "exchange.sh: $failures check(s) failed" >&2; exit 1; }
echo "exchange.sh: the databases crossed between the byte orders both ways"
