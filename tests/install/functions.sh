# Shared by the checks of this folder: a scratch folder outside the tree, and ways to fail.
# shellcheck shell=bash
scratch=$(mktemp -d)
trap 'status=$?; [[ $status -eq 0 ]] || tail -n 50 "$scratch"/*.log; rm -rf "$scratch"' EXIT

fail() {
  echo "FAIL: $1" >&2
  exit 1
}

find_one() {
  local found
  found=$(find "$1" -name "$2" -type f)
  [[ -n $found && $found != *$'\n'* ]] || fail "not exactly one $2 below $1: $found"
  echo "$found"
}

# Names of what a library shows to the outside.
symbols() {
  nm -DC --defined-only "$1" | cut -d ' ' -f 3-
}

# Only this library's namespace and the key constants of the host's header may be seen from outside.
check_symbols() {
  local others
  others=$(symbols "$1" |
    grep -vE '^(media_backend::|(guard variable for )?lumora::LumoraPicture::BaseMetadata::Keys::)' || true)
  [[ -z $others ]] || fail "symbols that should not leave the library: $others"
  readelf -d "$1" | grep -q 'SONAME.*\[libmedia_backend\.so\]' || fail "wrong soname"
}

# How a file is to be loaded: everything bound at once and then read-only, no executable stack.
check_loading() {
  local headers
  headers=$(readelf -lWd "$1")
  grep -q GNU_RELRO <<<"$headers" || fail "$1 has no part that is read-only after relocation"
  grep -q BIND_NOW <<<"$headers" || fail "$1 binds its symbols late"
  grep -qE 'GNU_STACK.* RW ' <<<"$headers" || fail "$1 has an executable stack"
  grep -q TEXTREL <<<"$headers" && fail "$1 relocates its code"
  return 0
}
