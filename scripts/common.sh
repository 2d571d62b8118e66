# What run.sh, test.sh and .ci/run share: packages, builds, messages. Sourced, never run.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${JOBS:-$(nproc)}

# What building and testing takes on Debian 12.
packages=(build-essential g++ cmake ninja-build ccache pkg-config binutils
  libpugixml-dev nettle-dev libcli11-dev nlohmann-json3-dev libgtest-dev libbenchmark-dev libplist-utils gdb)

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Ends the script with the last lines of a log and the log's place.
failWithLog() {
  local log=$1
  shift
  tail -n 40 "$log" >&2
  fail "$* The whole log: ${log#"$top/"}"
}

missingPackages() {
  local package
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || printf '%s\n' "$package"
  done
}

# Installs those of the named packages that are not there. Where there is no dpkg, the build
# itself says what it does not find.
needPackages() {
  local missing privileged=() log="$top/build/packages.log"
  command -v dpkg-query >/dev/null || return 0
  mapfile -t missing < <(missingPackages "$@")
  ((${#missing[@]})) || return 0
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      fail "Missing packages; as root, run: apt-get install ${missing[*]}"
    privileged=(sudo)
  fi
  printf 'Installing %s…\n' "${missing[*]}"
  mkdir -p "$top/build"
  # The update may fail where a package is in the local cache; the installation decides.
  "${privileged[@]}" apt-get update >"$log" 2>&1 || true
  "${privileged[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1 ||
    failWithLog "$log" "Cannot install ${missing[*]}."
}

# Keeps the log; shows a counter where somebody is looking.
showProgress() {
  local log=$1 title=$2 line
  if [[ ! -t 1 ]]; then
    cat >>"$log"
    return
  fi
  while IFS= read -r line; do
    printf '%s\n' "$line" >>"$log"
    [[ $line =~ ^\[([0-9]+/[0-9]+)\] ]] && printf '\r%s %s' "$title" "${BASH_REMATCH[1]}"
  done
  printf '\r\e[K'
}

# build <preset> [-DCACHE=ARGUMENT ...] [target ...]
#
# Configures when there is no build folder yet, or it was configured another way; ninja itself
# follows changes of the CMake files.
build() {
  local preset=$1 argument settings=() targets=()
  shift
  for argument in "$@"; do
    if [[ $argument == -D* ]]; then
      settings+=("$argument")
    else
      targets+=("$argument")
    fi
  done
  local folder="$top/build/$preset" title="Building ($preset)…"
  local log="$folder/build.log" stamp="$folder/configured-as" wanted
  wanted=$(printf '%s\n' "$top" "${settings[@]}" && cat "$top/CMakePresets.json")
  mkdir -p "$folder"
  : >"$log"
  [[ -t 1 ]] || printf '%s\n' "$title"
  if [[ ! -f $folder/build.ninja || $(cat "$stamp" 2>/dev/null) != "$wanted" ]]; then
    rm -f "$stamp"
    (cd "$top" && cmake --fresh --preset "$preset" "${settings[@]}") 2>&1 | showProgress "$log" "Configuring ($preset)…" ||
      failWithLog "$log" "Configuring ($preset) failed."
    printf '%s\n' "$wanted" >"$stamp"
  fi
  NINJA_STATUS='[%f/%t] ' cmake --build "$folder" --parallel "$jobs" \
    ${targets[@]+--target "${targets[@]}"} 2>&1 | showProgress "$log" "$title" ||
    failWithLog "$log" "Building ($preset) failed."
}

# The release build as all scripts want it, so that none of them configures it anew. Arguments
# are targets.
buildRelease() {
  if [[ ${CI:-} == true ]]; then
    build release -DKIV_WERROR=ON "$@"
  else
    build release -DKIV_WERROR=OFF "$@"
  fi
}

# runTests <preset> [ctest arguments]: quiet but for ctest's own closing line.
runTests() {
  local preset=$1
  shift
  local log="$top/build/$preset/test.log"
  [[ ! -t 1 ]] || printf 'Testing (%s)…' "$preset"
  if ! ctest --test-dir "$top/build/$preset" --parallel "$jobs" --output-on-failure --no-tests=error \
    "$@" >"$log" 2>&1; then
    [[ ! -t 1 ]] || printf '\r\e[K'
    failWithLog "$log" "Tests ($preset) failed."
  fi
  [[ ! -t 1 ]] || printf '\r\e[K'
  grep -E '^[0-9]+% tests passed' "$log"
}
