#!/usr/bin/env bash
# The whole test suite, as CI runs it: installs what is missing, checks the
# formatting and the layering of the daemon's includes, builds the normal
# (warnings as errors), ASan+UBSan and TSan configurations, runs every test
# in each (the release one also builds, lints and installs the Debian and
# RPM packages), builds the fuzzers and benchmarks and gives each fuzzer a
# short run, and runs shellcheck over every shell script and clang-tidy over
# the daemon and the test tools.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=${HIC_BUILD_ROOT:-$root/build/ci}
jobs=$(nproc)

step() { printf '\n== %s\n' "$*"; }

step "dependencies"
bash scripts/deps.sh

step "clang-format"
git ls-files '*.cc' '*.h' | xargs clang-format --dry-run -Werror

step "layering (no include of a higher room, no include cycle)"
bash tests/layering/check_includes.sh

step "shellcheck"
# Every shell script: by name, or by its #! line.
{
  git ls-files '*.sh'
  git ls-files -z | xargs -0 awk 'FNR == 1 && /^#!.*[\/ ](ba|da)?sh( |$)/ {print FILENAME} {nextfile}'
} | sort -u | xargs shellcheck

configure() {  # dir, extra cmake args...
  local dir=$1
  shift
  cmake -S "$root" -B "$dir" -G Ninja -DHIC_WERROR=ON "$@" >/dev/null
}

for cfg in release asan tsan; do
  case $cfg in
    release) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DHIC_BUILD_BENCH=ON) ;;
    asan) args=(-DCMAKE_BUILD_TYPE=Debug -DHIC_SANITIZE=address) ;;
    tsan) args=(-DCMAKE_BUILD_TYPE=Debug -DHIC_SANITIZE=thread) ;;
  esac
  step "build ($cfg)"
  configure "$out/$cfg" "${args[@]}"
  cmake --build "$out/$cfg" -j "$jobs"
  step "tests ($cfg)"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$out/$cfg" --output-on-failure -j "$jobs" | tee "$out/$cfg/ctest.log"
  n=$(sed -n 's/.*tests passed, 0 tests failed out of \([0-9]*\).*/\1/p' "$out/$cfg/ctest.log")
  total=$((${total:-0} + ${n:-0}))
done

step "fuzzers (clang, ASan+UBSan, ${HIC_FUZZ_SECONDS:-30} s each)"
configure "$out/fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHIC_BUILD_TESTS=OFF -DHIC_BUILD_FUZZ=ON \
  -DHIC_SANITIZE=address -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build "$out/fuzz" --target bounded_fuzz settings_fuzz -j "$jobs"
# Both at once: each fuzzer keeps one core busy.
fuzzers=(bounded settings)
pids=()
for f in "${fuzzers[@]}"; do
  corpus=$out/fuzz/corpus-$f
  mkdir -p "$corpus"
  if [ -d "fuzz/corpus/$f" ]; then cp -n "fuzz/corpus/$f"/* "$corpus"/ 2>/dev/null || true; fi
  "$out/fuzz/fuzz/${f}_fuzz" -max_total_time="${HIC_FUZZ_SECONDS:-30}" -print_final_stats=0 "$corpus" \
    >"$out/fuzz/$f.log" 2>&1 &
  pids+=($!)
done
for i in "${!fuzzers[@]}"; do
  f=${fuzzers[$i]}
  wait "${pids[$i]}" || { tail -40 "$out/fuzz/$f.log"; exit 1; }
  grep -E '^Done|DONE' "$out/fuzz/$f.log" | tail -1 || true
done

step "clang-tidy (daemon and test tools)"
git ls-files 'src/*.cc' 'tools/*.cc' | xargs -P "$jobs" -n 4 clang-tidy -p "$out/release" --quiet 2>/dev/null

step "all configurations passed"
echo "ctest: $total passed, 0 failed"
