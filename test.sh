#!/usr/bin/env bash
# Builds everything and runs all tests. Arguments go to ctest: ./test.sh -R core -V
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/scripts/common.sh"

needPackages "${packages[@]}"
buildRelease

if (($#)); then
  exec ctest --test-dir "$top/build/release" --parallel "$jobs" --output-on-failure --no-tests=error "$@"
fi
runTests release
