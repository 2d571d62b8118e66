#!/bin/sh
# allowed_symbols.sh ARCHIVE LIST
#
# Proves that no object of a static library needs anything from outside but what the list
# allows: "symbol" for every object or "object symbol" for one. What another object of the
# library defines is fine. Names each offender and fails.
set -eu
symbols=$(nm -P "$1")
forbidden=$(printf '%s\n' "$symbols" | awk -v list="$2" '
  BEGIN {
    while ((getline line < list) > 0) {
      sub(/#.*/, "", line)
      words = split(line, word)
      if (words == 1) { allowed[word[1]] }
      if (words == 2) { allowed[word[1] " " word[2]] }
    }
  }
  /\]:$/ { object = $0; sub(/.*\[/, "", object); sub(/\]:$/, "", object); next }
  $2 ~ /^[Uwv]$/ { needed[object " " $1] = $1; ++count; next }
  $2 ~ /^[A-Zu]$/ { defined[$1] }
  END {
    if (count == 0) { print "no undefined symbol at all: is this the library?" }
    for (need in needed) {
      if (!(needed[need] in defined) && !(needed[need] in allowed) && !(need in allowed)) { print need }
    }
  }' | sort)
if [ -n "$forbidden" ]; then
  printf 'Not allowed in %s:\n%s\n' "$1" "$forbidden"
  exit 1
fi
