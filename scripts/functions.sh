# Shared by several scripts.
# shellcheck shell=bash

# Runs a command with its output in the file $1. Every 15 seconds, prints the time that it has taken and the
# last line of the file.
logged() {
  local log=$1 reporter code=0
  shift
  mkdir -p "$(dirname "$log")"
  : >"$log"
  report_progress "$log" &
  reporter=$!
  "$@" >"$log" 2>&1 || code=$?
  kill "$reporter" 2>/dev/null || true
  wait "$reporter" 2>/dev/null || true
  return "$code"
}

# Ends with the script. A `sleep` would outlive this process and keep the terminal's pipe open.
report_progress() {
  local never begin=$SECONDS
  exec {never}<> <(:)
  while ! read -rt 15 -u "$never" && kill -0 $$ 2>/dev/null; do
    printf '  %d s: %s\n' $((SECONDS - begin)) "$(tail -n 1 "$1" | tr -d '\r' | cut -c 1-90)"
  done
}

# The mirror of this machine's own packages.
# shellcheck disable=SC2016  # apt's own variables
mirror() {
  apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
    sed -n 's/ [a-z]*$//p' | head -n 1
}
