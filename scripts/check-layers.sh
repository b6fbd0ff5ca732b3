#!/usr/bin/env bash
# Fails when the daemon's code includes a header against the direction of its
# layers, or anything from host/ (the host implementations of the platform
# libraries, which the daemon reaches only through platform/):
#
#   frame > bus > watch > scan > storage > common, platform
#
# A folder may include its own headers and those of every layer below it.
set -euo pipefail
cd "$(dirname "$0")/.."

layers=(common storage scan watch bus frame)
rank() {
  case "$1" in
    platform) echo 0 ;;
    common) echo 0 ;;
    storage) echo 1 ;; scan) echo 2 ;; watch) echo 3 ;; bus) echo 4 ;; frame) echo 5 ;;
    *) echo 99 ;;
  esac
}

bad=0
for folder in "${layers[@]}" platform; do
  [ -d "$folder" ] || continue
  mine=$(rank "$folder")
  while IFS= read -r hit; do
    file=${hit%%:*}
    rest=${hit#*:}; line=${rest%%:*}; text=${rest#*:}
    target=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^/"]+)\/.*/\1/' <<<"$text")
    [ "$target" != "$text" ] || continue   # a header without a folder: the same folder
    if [ "$target" = host ] || [ "$target" = tools ] || [ "$target" = tests ]; then
      echo "$file:$line: daemon code includes $target/: $text"; bad=1; continue
    fi
    theirs=$(rank "$target")
    if [ "$folder" = common ] || [ "$folder" = platform ]; then
      # The bottom layers include only themselves.
      if [ "$target" != "$folder" ] && [ "$target" != platform ]; then
        echo "$file:$line: $folder/ includes $target/, a layer above it: $text"; bad=1
      fi
    elif [ "$theirs" -gt "$mine" ]; then
      echo "$file:$line: $folder/ includes $target/, a layer above it: $text"; bad=1
    fi
  done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$folder" --include='*.h' --include='*.cpp' --include='*.c' || true)
done

if ((bad)); then
  echo "check-layers: includes against the layer order (frame > bus > watch > scan > storage > common, platform)"
  exit 1
fi
echo "check-layers: every include follows the layer order"
