# shellcheck shell=bash
# The start that scripts/mips-sqlite.sh and scripts/mips-media.sh share: each
# builds libraries for the MIPS cross build into a cache that outlives the
# checkout. Sourced from the top of the repository, after `set -euo pipefail`
# and with the script's own arguments; the caller sets
#   name           the cache's name and the prefix of its messages (mips-sqlite)
#   recipe_files   the files whose text makes the recipe (this file is added)
# and gets
#   repo           the repository (the current directory)
#   cache          the cache, made if missing, as an absolute path: $1, else
#                  ${ZIBD_CACHE:-${XDG_CACHE_HOME:-~/.cache}/zibd}/NAME
#   recipe         the sha256 of the recipe: a changed recipe rebuilds
#   log, die       a message on stderr, "NAME: ..."; die then exits 1
#   lock_cache     waits until no other run holds the cache, then holds it
#                  until the script exits
# shellcheck disable=SC2034  # for the caller
repo=$PWD

cache=${1:-${ZIBD_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zibd}/$name}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
log() { echo "$name: $*" >&2; }
die() { log "$*"; exit 1; }

# shellcheck disable=SC2154  # recipe_files: set by the caller
recipe=$(cat "${recipe_files[@]}" scripts/lib/mips-cache.sh | sha256sum)
recipe=${recipe%% *}

lock_cache() {
  exec 9>"$cache/.lock"
  flock 9
}
