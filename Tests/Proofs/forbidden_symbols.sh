#!/bin/sh
# forbidden_symbols.sh ARCHIVE LIST OBJECT...
#
# Proves that the named objects of a static library, which the crash path runs through, call
# nothing on the list. Names each offender and fails, also for an object that is not there.
set -eu
archive=$1
list=$2
shift 2
found=0
for object in "$@"; do
  symbols=$(nm -u -P "$archive" | awk -v object="[$object.o]:" '
    /\]:$/ { inside = index($0, object) > 0; if (inside) { print "#" }; next }
    inside { print $1 }')
  if [ -z "$symbols" ]; then
    echo "$object is not in $archive"
    found=1
  fi
  for symbol in $(printf '%s\n' "$symbols" | grep -v '^#' | grep -x -E -f "$list" || true); do
    echo "$object calls $symbol"
    found=1
  done
done
exit $found
