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
  (cd "$dir" && ctest -j2 --output-on-failure --timeout 600 -LE realtime)
  # Sound is judged in real time against a live server: a busy moment on the
  # machine can spoil one measurement, so these get one more try (a real
  # fault fails both).
  (cd "$dir" && ctest --output-on-failure --timeout 600 -L realtime --repeat until-pass:2)
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [ $quick -eq 0 ]; then
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DKORVALEN_SANITIZE=address -DKORVALEN_BENCH=OFF
fi
if [ $quick -eq 0 ] && command -v clang++ >/dev/null && ls fuzz/fuzz_*.cpp >/dev/null 2>&1; then
  # A short run of every fuzzer from its seed corpus (copied, so the committed
  # seeds stay as they are). FUZZ_SECONDS sets the time per target.
  echo "== fuzz (${FUZZ_SECONDS:-15} s per target)"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVALEN_FUZZ=ON \
    -DKORVALEN_TESTS=OFF -DKORVALEN_BENCH=OFF >/dev/null
  ninja -C build-fuzz
  for src in fuzz/fuzz_*.cpp; do
    name=$(basename "$src" .cpp)
    work=$(mktemp -d)
    [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/"
    echo "-- $name"
    if ! ASAN_OPTIONS=detect_leaks=1 "build-fuzz/fuzz/$name" -max_total_time="${FUZZ_SECONDS:-15}" \
      -rss_limit_mb=2048 "$work" >"$work.log" 2>&1; then
      cat "$work.log"; echo "fuzzer $name failed"; exit 1
    fi
    tail -n 2 "$work.log"
    rm -rf "$work" "$work.log"
  done
fi
if [ $tsan -eq 1 ]; then
  TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tests/tsan.supp" \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=Debug -DKORVALEN_SANITIZE=thread -DKORVALEN_BENCH=OFF
fi
echo "== all suites passed"
