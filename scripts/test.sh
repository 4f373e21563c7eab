#!/usr/bin/env bash
# Builds and runs every test: native x86-64, 32-bit (-m32), native under
# AddressSanitizer + UndefinedBehaviorSanitizer, native under ThreadSanitizer,
# each libFuzzer target for 30 seconds on its corpus (when clang is there),
# Windows x86-64 (mingw-w64) with the test suite under wine64, and the
# Windows i686 VKKRN13N.dll, checked on the file (exports, calling
# convention, imports) and by linking C programs against its import library.
# Usage: scripts/test.sh [native|m32|asan|tsan|fuzz|win64|win32 ...]   (default: all seven)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
root=$(pwd)
variants=("$@")
[ ${#variants[@]} -gt 0 ] || variants=(native m32 asan tsan fuzz win64 win32)

run_variant() {
  local name=$1; shift
  local dir=build/test-$name
  echo "==== $name build ===="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "==== $name tests ===="
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600
}

# The Windows x86-64 tests under wine64, headless, in a wine prefix of their
# own.  One persistent wine server for the whole run: without it every test
# program starts wine afresh (seconds each instead of a twentieth).
run_wine() {
  local dir=build/test-win64
  echo "==== win64 build ===="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
    -DCMAKE_CROSSCOMPILING_EMULATOR=wine -DVK_GTEST_FROM_SOURCE=ON -DVK_BUILD_BENCH=OFF -DVK_BUILD_TOOLS=OFF >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "==== win64 tests (wine64) ===="
  export WINEPREFIX="$root/$dir/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  unset DISPLAY WAYLAND_DISPLAY
  mkdir -p "$WINEPREFIX"
  wineserver -p
  wine cmd /c exit
  # wine hands no variable named VK_* from the shell to a program: the
  # tests' variables go into the prefix's user environment instead.
  local env_key='HKCU\Environment'
  wine reg add "$env_key" /v VK_SOURCE_DIR /d "$root" /f >/dev/null
  local status=0
  # Under load wine now and then fails to start a test's process at all (it
  # ends at once with no output); such tests get one more run, and a test
  # that fails again fails the variant.
  if ! ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600; then
    echo "==== win64: the failed tests once more ===="
    ctest --test-dir "$dir" --rerun-failed --output-on-failure --timeout 600 || status=$?
  fi
  if [ $status -eq 0 ]; then
    echo "==== win64 tests, plain kernels (VK_FORCE_GENERIC=1) ===="
    wine reg add "$env_key" /v VK_FORCE_GENERIC /d 1 /f >/dev/null
    wine "$dir/vk_tests.exe" --gtest_brief=1 --gtest_filter="$generic_filter" || status=$?
    wine reg delete "$env_key" /v VK_FORCE_GENERIC /f >/dev/null
  fi
  wineserver -k || true
  return $status
}

# What a user of the package does: install into a temporary prefix, then
# build examples/ from there, through pkg-config (C, shared and static) and
# through find_package (C++ through vkkrn.hpp, shared and static), and run them.
run_install_check() {
  echo "==== $1 install and consumer builds ===="
  local prefix work
  prefix=$(mktemp -d) work=$(mktemp -d)
  cmake --install "build/test-$1" --prefix "$prefix" >/dev/null
  local examples=$prefix/share/doc/vkkrn/examples version
  export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  version=$(pkg-config --modversion vkkrn13n)
  cc -std=c99 -Wall -Werror "$examples/basic.c" $(pkg-config --cflags --libs vkkrn13n) \
    -Wl,-rpath,"$prefix/lib" -o "$work/basic-shared"
  # Static: the library and what Libs.private names (the C++ runtime) from
  # their archives, the C library as usual.
  cc -std=c99 -Wall -Werror "$examples/basic.c" $(pkg-config --cflags vkkrn13n) \
    -Wl,-Bstatic $(pkg-config --static --libs vkkrn13n) -Wl,-Bdynamic -o "$work/basic-static"
  local needed program
  needed=$(readelf -d "$work/basic-static")
  case $needed in *libVKKRN13N*|*libstdc++*)
    echo "install: basic-static needs a shared library: $needed" >&2; exit 1 ;;
  esac
  needed=$(readelf -d "$work/basic-shared")
  case $needed in *"[libVKKRN13N.so.${version%%.*}]"*) ;;
    *) echo "install: basic-shared does not need libVKKRN13N.so.${version%%.*}" >&2; exit 1 ;;
  esac
  for program in basic-shared basic-static; do
    case $("$work/$program") in
      *"version $version"$'\n'*) ;;
      *) echo "install: $program does not report version $version" >&2; exit 1 ;;
    esac
  done
  cmake -S "$examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$work/cmake" -j"$jobs" >/dev/null
  "$work/cmake/basic" >/dev/null
  "$work/cmake/reduce" >/dev/null
  "$work/cmake/reduce_static" >/dev/null
  unset PKG_CONFIG_PATH
  echo "install: $version in $prefix; pkg-config (shared, static) and find_package builds ran"
  rm -rf "$prefix" "$work"
}

# The palette matching, row mirrors and transpositions again with every
# vector kernel on its plain path.
generic_filter='Lookup*:Convert*:Dither*:ColorRes*:Optimize*:Golden*:Palette*:Pixel*:MirrorLine*:RotateBuffer*:OrientTest.Flip*'
run_generic() {
  echo "==== $1 tests, plain kernels (VK_FORCE_GENERIC=1) ===="
  VK_FORCE_GENERIC=1 "build/test-$1/vk_tests" --gtest_filter="$generic_filter"
}

for v in "${variants[@]}"; do
  case $v in
    native) run_variant native && run_generic native && run_install_check native ;;
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
    tsan)
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        run_variant tsan -DVK_TSAN=ON -DVK_BUILD_BENCH=OFF -DVK_BUILD_TOOLS=OFF ;;
    fuzz)
      if ! command -v clang++ >/dev/null; then echo "==== fuzz: clang++ not found, skipped ===="; continue; fi
      echo "==== fuzz build ===="
      CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVK_FUZZ=ON \
        -DVK_BUILD_TESTS=OFF -DVK_BUILD_BENCH=OFF >/dev/null
      cmake --build build/fuzz -j"$jobs"
      seconds=${VK_FUZZ_SECONDS:-30}
      for target in build/fuzz/fuzz/fuzz_*; do
        [ -x "$target" ] || continue
        name=$(basename "$target")
        corpus=fuzz/corpus/${name#fuzz_}
        [ "$name" = fuzz_image_read ] && corpus=fuzz/corpus/image
        # New inputs go to a scratch folder: the committed corpus stays small.
        scratch=$(mktemp -d)
        echo "==== fuzz $name: ${seconds}s ===="
        # libFuzzer writes a crashing input into its working directory, the scratch folder.
        if ! (cd "$scratch" && "$root/$target" -max_total_time="$seconds" -rss_limit_mb=2048 \
                "$scratch" "$root/$corpus" >"$scratch.log" 2>&1); then
          tail -n 40 "$scratch.log"
          echo "fuzz: $name found a fault (inputs kept in $scratch)" >&2
          exit 1
        fi
        grep -E "^Done|^#[0-9]+.*DONE" "$scratch.log" | tail -n 1
        rm -rf "$scratch" "$scratch.log"
      done ;;
    win64) run_wine ;;
    win32)
      # Nothing 32-bit runs under wine64 (such a program exits 0 unrun), so
      # the tests of this build are the static checks only.
      run_variant win32 -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-i686.cmake -DVK_BUILD_BENCH=OFF -DVK_BUILD_TOOLS=OFF ;;
    *) echo "unknown variant $v" >&2; exit 2 ;;
  esac
done
echo "all test builds passed: ${variants[*]}"
