#!/usr/bin/env bash
# Installs dependencies, builds, makes the media fixtures and runs the whole
# suite twice: a normal build and an ASan+UBSan build. --tsan adds a
# ThreadSanitizer run; --quick skips the sanitizer builds.
set -euo pipefail
cd "$(dirname "$0")/.."

tsan=0
quick=0
for arg in "$@"; do
  case "$arg" in
    --tsan) tsan=1 ;;
    --quick) quick=1 ;;
    *) echo "usage: scripts/test.sh [--tsan] [--quick]" >&2; exit 2 ;;
  esac
done

scripts/setup.sh

run_suite() {
  local dir=$1; shift
  echo "== configure $dir $*"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  echo "== build $dir"
  ninja -C "$dir"
  scripts/make_fixtures.sh "$dir/fixtures"
  echo "== test $dir"
  (cd "$dir" && ctest -j2 --output-on-failure --timeout 600)
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [ $quick -eq 0 ]; then
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DKORVALEN_SANITIZE=address -DKORVALEN_BENCH=OFF
fi
if [ $tsan -eq 1 ]; then
  TSAN_OPTIONS=halt_on_error=1 \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=Debug -DKORVALEN_SANITIZE=thread -DKORVALEN_BENCH=OFF
fi
echo "== all suites passed"
