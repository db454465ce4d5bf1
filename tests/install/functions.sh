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

# No place on the machine that built it, nor any other, is searched for libraries.
check_no_run_path() {
  grep -qE 'RPATH|RUNPATH' <<<"$(readelf -dW "$1")" && fail "$1 has a run path"
  return 0
}

# Builds every example by pkg-config and the example host by CMake, too, and runs the host without a
# board and on simulated ones, where it has to say the same however it was built.
# Arguments: where CMake looks (empty: the system's places), and media-station (empty: there is none).
check_host() {
  local board expected said example own
  cmake -S examples/host -B "$scratch/host" -DCMAKE_PREFIX_PATH="$1" >"$scratch/configure.log"
  cmake --build "$scratch/host" >"$scratch/build.log"
  for example in examples/*; do
    own=  # module that only this example needs
    [[ $example != */rtsp ]] || own=gstreamer-rtsp-server-1.0
    [[ -z $own ]] || pkg-config "$own" || continue
    # shellcheck disable=SC2046,SC2086 # flags are words
    c++ -std=c++17 "$example/main.cpp" -o "$scratch/${example#*/}-pkg-config" \
      $(pkg-config --cflags --libs media_backend $own)
  done

  for board in "" nvidia imx; do
    export SIMULATED_BOARD=$board GST_REGISTRY=$scratch/registry.bin
    said=$("$scratch/host/host")
    [[ $said == "$("$scratch/host-pkg-config")" ]] ||
      fail "the builds by CMake and pkg-config differ"
    case $board in
      "") expected="this machine has no encoder" ;;
      nvidia) expected="recorder for h265, takes video/x-raw(memory:NVMM)" ;;
      imx) expected="recorder for h265, takes video/x-raw, format" ;;
    esac
    [[ $said == *"$expected"* ]] || fail "on board \"$board\" the example says: $said"
  done
  unset SIMULATED_BOARD

  [[ -z $2 ]] || "$2" inspect --board nvidia >/dev/null || fail "the installed media-station does not run"
}
