#!/usr/bin/env bash
# Builds the client and runs the main job once: install, crash, find the crash again. All data
# goes to a scratch folder, which KEEP=1 keeps. A step that does not do what it should ends
# this script.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/scripts/common.sh"

scratch=
removeScratch() {
  [[ -z $scratch || ${KEEP:-} == 1 ]] || rm -rf "$scratch"
}
trap removeScratch EXIT

heading() {
  if [[ -t 1 ]]; then
    printf '\n\e[1m%s\e[0m\n' "$*"
  else
    printf '\n%s\n' "$*"
  fi
}

# Shows a text, indented, with the two long folders in it named.
show() {
  sed -e "s|$scratch|SCRATCH|g" -e "s|$top/||g" -e '/./s/^/    /'
}

# ovalyn <name of the step> <arguments>: leaves $status, and what it wrote in $out and $log.
ovalyn() {
  out=$scratch/$1.out
  log=$scratch/$1.log
  shift
  heading "\$ ovalyn $*"
  status=0
  # The subshell keeps bash's own note about a signal off the screen.
  (timeout 60 "$top/build/release/bin/ovalyn" "$@" >"$out" 2>"$log" || exit $?) 2>/dev/null || status=$?
}

# expect <what is wrong otherwise> <command>
expect() {
  local wrong=$1
  shift
  "$@" >/dev/null && return
  tail -n 20 "$log" | show >&2
  fail "$wrong (status $status; its log is above)."
}

ends() {
  ((status == $1))
}

firstStart() {
  ovalyn first --quit-after 1
  grep -h '<KIV>' "$log" | show || true
  show <"$out"
  expect "The first start did not end in order" ends 0
  expect "The library did not install itself" grep 'Init sdk\[' "$log"
  expect "The handlers are not in force" \
    grep 'Install exception handler SUCCESS, signal handler SUCCESS' "$log"
}

dataFiles() {
  local model
  heading "What it wrote"
  (cd "$scratch" && find data config state -type f -printf 'SCRATCH/%p  %s bytes\n' | LC_ALL=C sort) | show
  model=$(find "$XDG_DATA_HOME" -name .kivios.plist)
  expect "There is no model file" test -n "$model"
  heading "\$ plistutil -i ${model/#"$scratch"/SCRATCH} -f xml"
  plistutil -i "$model" -f xml | sed -n '/<dict>/,/<\/dict>/p' >"$scratch/model.xml" ||
    fail "plistutil cannot read $model"
  show <"$scratch/model.xml"
  expect "The model file does not hold the application key" grep com.velmora.ovalyn "$scratch/model.xml"
}

stacks() {
  ovalyn stacks --show-stacks --quit-after 0.2
  sed -n '/^Thread/,$p' "$out" >"$scratch/stacks.txt"
  show <"$scratch/stacks.txt"
  expect "The start that shows stacks did not end in order" ends 0
  expect "The names are not readable" grep -E '^[0-9]+ +ovalyn .* platform::RunLoop::turn' "$scratch/stacks.txt"
  expect "The main thread's stack does not reach main" grep -E '^[0-9]+ +ovalyn .* main \+' "$scratch/stacks.txt"
}

crash() {
  ovalyn crash --simulate signal
  grep -h 'Trap a fatal signal' "$log" | show || true
  expect "The crash did not end the client by SIGSEGV" ends $((128 + $(kill -l SEGV)))
  printf '    ended by SIGSEGV\n'
}

# kiv <arguments>: leaves what it wrote in $out.
kiv() {
  out=$scratch/kiv.out
  log=$out
  heading "\$ kiv $*"
  status=0
  "$top/build/release/bin/kiv" "$@" >"$out" 2>&1 || status=$?
}

# The ID of the newest stored crash.
newest() {
  "$top/build/release/bin/kiv" show | sed -n '2s/ .*//p'
}

nextStart() {
  ovalyn second --quit-after 1
  show <"$out"
  expect "The start after the crash did not end in order" ends 0
  expect "The start after the crash did not find it" grep 'The run before crashed' "$out"
  kiv show "$(newest)"
  sed -n '1,/^Thread 0/p;/^Thread 0/,/^$/p' "$out" | uniq | show
  printf '    …\n'
  expect "The stored crash cannot be shown" ends 0
  expect "The crash is not described" grep 'SIGSEGV' "$out"
  expect "The function at fault is not named" grep decodeFrame "$out"
}

# Killed from outside in the middle of its handling, when the program's own callback has the word.
killedCrash() {
  local journal pid
  log=$scratch/killed.log
  heading "\$ ovalyn --simulate hang, and kill -9 while the crash is recorded"
  "$top/build/release/bin/ovalyn" --simulate hang >"$scratch/killed.out" 2>"$log" &
  pid=$!
  status=0
  expect "The client did not come to its callback" appears 'Call user crash handler callback' "$log"
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || status=$?
  expect "The client was not killed" ends $((128 + $(kill -l KILL)))
  printf '    killed; nothing was stored\n'
  journal=$(find "$XDG_DATA_HOME" -name '.journal_*' -printf '%T@ %p\n' | sort -n | tail -n 1 | cut -d' ' -f2-)
  heading "\$ kiv show --journal ${journal/#"$scratch"/SCRATCH}"
  "$top/build/release/bin/kiv" show --journal "$journal" >"$scratch/journal.txt" || fail "kiv cannot show $journal"
  sed -n '1,/^threads/p' "$scratch/journal.txt" | show
  printf '    …\n'
  ovalyn third --quit-after 1
  show <"$out"
  expect "The start after the kill did not end in order" ends 0
  expect "The start after the kill did not find the crash" grep 'The run before crashed' "$out"
  kiv show "$(newest)"
  sed -n '1p;/^Exception Type/,/^$/p;/^Thread 0 Crashed/,/^$/p' "$out" | uniq | show
  printf '    …\n'
  expect "The start after the kill did not recover the crash" grep -x 'Handler: Signal Handler (recovered)' "$out"
  expect "The function at fault is not named" grep giveUpOnFrame "$out"
}

storedCrashes() {
  kiv show
  show <"$out"
  expect "The stored crashes cannot be listed" ends 0
  expect "There are not two of them" test "$(wc -l <"$out")" = 3
}

# appears <text> <file>: waits for it, ten seconds at most.
appears() {
  timeout 10 sh -c 'until grep -qs "$1" "$2"; do sleep 0.01; done' sh "$1" "$2"
}

needPackages "${packages[@]}"
buildRelease ovalyn kiv

scratch=$(mktemp -d "${TMPDIR:-/tmp}/kiv-run.XXXXXX")
export XDG_DATA_HOME=$scratch/data XDG_CONFIG_HOME=$scratch/config XDG_STATE_HOME=$scratch/state
mkdir -p "$XDG_DATA_HOME" "$XDG_CONFIG_HOME" "$XDG_STATE_HOME"
ulimit -c 0

firstStart
dataFiles
stacks
crash
nextStart
killedCrash
storedCrashes

heading "All steps did what they should."
[[ ${KEEP:-} != 1 ]] || printf 'The data is in %s\n' "$scratch"
