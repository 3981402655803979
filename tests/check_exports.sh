#!/usr/bin/env bash
# Compares the dynamic symbols of libkorvalen.so with the functions declared
# in korvalen.h: both lists must be equal and hold 115 names.
set -euo pipefail
lib=$1
header=$2
declared=$(grep -oE 'Korvalen_[A-Za-z0-9_]+\(' "$header" | tr -d '(' | sort -u)
exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWiV]$/ {print $3}' | sort -u)
others=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWiVDdBbRr]$/ {print $3}' | grep -vE '^Korvalen_' || true)
status=0
if [ -n "$others" ]; then
  echo "exported symbols that are not API functions:"; echo "$others"; status=1
fi
if ! diff <(echo "$declared") <(echo "$exported"); then
  echo "declared (<) and exported (>) functions differ"; status=1
fi
n=$(echo "$exported" | grep -c .)
if [ "$n" -ne 115 ]; then
  echo "expected 115 exported functions, found $n"; status=1
fi
[ $status -eq 0 ] && echo "libkorvalen.so exports exactly the $n API functions"
exit $status
