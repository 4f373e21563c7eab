#!/usr/bin/env bash
# Builds and runs every test three ways: native x86-64, 32-bit (-m32), and
# native under AddressSanitizer + UndefinedBehaviorSanitizer.
# Usage: scripts/test.sh [native|m32|asan ...]   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
variants=("$@")
[ ${#variants[@]} -gt 0 ] || variants=(native m32 asan)

run_variant() {
  local name=$1; shift
  local dir=build/test-$name
  echo "==== $name build ===="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "==== $name tests ===="
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600
}

# The palette matching again with every vector kernel on its plain path.
run_generic() {
  echo "==== $1 tests, plain kernels (VK_FORCE_GENERIC=1) ===="
  VK_FORCE_GENERIC=1 "build/test-$1/vk_tests" \
    --gtest_filter='Lookup*:Convert*:Dither*:ColorRes*:Optimize*:Golden*:Palette*:Pixel*'
}

for v in "${variants[@]}"; do
  case $v in
    native) run_variant native && run_generic native ;;
    m32)
      # Some kernels (sandboxes among them) cannot execute 32-bit binaries:
      # then the tests run under user-mode emulation.
      emulator=()
      probe=$(mktemp -d)
      printf 'int main(void){return 0;}\n' > "$probe/p.c"
      if gcc -m32 "$probe/p.c" -o "$probe/p" 2>/dev/null && ! "$probe/p" 2>/dev/null; then
        emulator=(-DCMAKE_CROSSCOMPILING_EMULATOR="$(command -v qemu-i386)")
      fi
      rm -rf "$probe"
      CFLAGS=-m32 CXXFLAGS=-m32 LDFLAGS=-m32 \
        run_variant m32 -DVK_GTEST_FROM_SOURCE=ON -DVK_BUILD_BENCH=OFF -DVK_BUILD_TOOLS=OFF "${emulator[@]}" ;;
    asan)
      ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        run_variant asan -DVK_SANITIZE=ON -DVK_BUILD_BENCH=OFF ;;
    *) echo "unknown variant $v" >&2; exit 2 ;;
  esac
done
echo "all test builds passed: ${variants[*]}"
