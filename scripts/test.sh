#!/usr/bin/env bash
# Brightmix's whole test run, as CI runs it on a fresh Debian 12 machine:
#   1. installs whatever is missing (scripts/install-deps.sh),
#   2. checks formatting and the layer rule,
#      and, where a macOS SDK sysroot is present, cross-compiles the macOS layer and links
#      Brightmix.app with warnings as errors (scripts/check-macos.sh; one line when skipped),
#   3. builds optimised with warnings as errors and runs every test through CTest
#      (unit tests, and the end-to-end tests against a private PipeWire session),
#   4. builds with AddressSanitizer + UBSan and runs the unit tests,
#   5. builds with ThreadSanitizer and runs the concurrency stress tests, the tests whose
#      IO runs on real threads (detection, the app model with its real file writer) and the
#      end-to-end tests against PipeWire,
#   6. builds the libFuzzer targets with clang and runs each for a bounded time,
#   7. runs every benchmark once, briefly, so that none rots.
# Set BRIGHTMIX_FUZZ_SECONDS to change the fuzzing time per target (default 30).
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${BRIGHTMIX_JOBS:-$(nproc)}
fuzz_seconds=${BRIGHTMIX_FUZZ_SECONDS:-30}
passed=0
stage_started=$SECONDS
stage() {
    stage_started=$SECONDS
    echo
    echo "==== $* ===="
}
done_stage() {
    passed=$((passed + 1))
    echo "---- stage done in $((SECONDS - stage_started)) s"
}

stage "dependencies"
./scripts/install-deps.sh
done_stage

stage "format and layers"
./scripts/check-format.sh
./scripts/check-layers.sh
done_stage

stage "macOS cross-compile"
./scripts/check-macos.sh
done_stage

stage "optimised build, warnings as errors, all tests"
cmake --preset ci >/dev/null
cmake --build --preset ci -j "$jobs"
ctest --preset ci
done_stage

stage "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs" --target brightmix_tests
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    LSAN_OPTIONS=suppressions=$PWD/scripts/lsan.supp \
    ./build/asan/tests/brightmix_tests --gtest_brief=1
done_stage

stage "ThreadSanitizer stress"
cmake --preset tsan >/dev/null
# The stress tests, and the detection tests whose taps run on real IO threads.
cmake --build --preset tsan -j "$jobs" \
    --target brightmix_stress_tests brightmix_tests_switching brightmix_tests_platform \
    brightmix_tests_model
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
./build/tsan/tests/brightmix_stress_tests --gtest_brief=1
./build/tsan/tests/brightmix_tests_switching --gtest_brief=1
./build/tsan/tests/brightmix_tests_model --gtest_brief=1
./build/tsan/tests/brightmix_tests_platform --gtest_brief=1 --gtest_filter='*Thread*'
# The PipeWire backend's thread loop and real-time thread, end to end against a session,
# and the desktop application (Qt's uninstrumented internals suppressed).
cmake --build --preset tsan -j "$jobs" --target brightmix_linux_tests brightmix brightmix-watchdog
export TSAN_OPTIONS="$TSAN_OPTIONS suppressions=$PWD/scripts/tsan-qt.supp"
ctest --preset tsan -R linux_end_to_end
unset TSAN_OPTIONS
done_stage

stage "fuzzing, ${fuzz_seconds} s per target"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
for fuzzer in build/fuzz/fuzz/*Fuzzer; do
    [ -x "$fuzzer" ] || continue
    name=$(basename "$fuzzer")
    corpus=build/fuzz/corpus/$name
    mkdir -p "$corpus"
    seeds=()
    [ -d "fuzz/seeds/$name" ] && seeds=("fuzz/seeds/$name")
    echo "-- $name"
    log=build/fuzz/$name.log
    if ! "$fuzzer" -max_total_time="$fuzz_seconds" -print_final_stats=1 "$corpus" \
        "${seeds[@]}" >"$log" 2>&1; then
        tail -n 60 "$log"
        echo "$name found a failure" >&2
        exit 1
    fi
    grep -E "^(stat::number_of_executed_units|Done)" "$log" || tail -n 3 "$log"
done
done_stage

stage "benchmarks, one short pass"
if [ -x build/ci/bench/brightmix_bench ]; then
    ./build/ci/bench/brightmix_bench --benchmark_min_time=0.01 >/dev/null
fi
done_stage

echo
echo "test stages: ${passed} passed, 0 failed"
