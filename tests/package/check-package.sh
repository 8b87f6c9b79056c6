#!/usr/bin/env bash
# Checks the installed package as a host sees it:
# - a fresh shared Release build of the libraries alone, installed into a prefix: both shared
#   libraries export only names of namespace kelvane, and the minimal host builds against the
#   install through find_package and through pkg-config, and runs;
# - the static install of the calling build tree, used by the minimal host the same two ways
#   (with that tree's sanitizers, which its static libraries need);
# - a project that adds the source tree with add_subdirectory gets kelvane::kelvane and
#   kelvane::gtk and none of the tests (configured only).
# Usage: check-package.sh SOURCE_DIR BUILD_DIR VERSION [SANITIZERS, e.g. address,undefined]
set -euo pipefail

source_dir="$1" build_dir="$2" version="$3" sanitizers="${4:-}"
work="$build_dir/package-check"
example="$source_dir/examples/minimal-host"
rm -rf "$work"
mkdir -p "$work"
start=$SECONDS

step() { echo "== $* ($((SECONDS - start)) s)"; }

launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

step "shared build of the libraries"
cmake -S "$source_dir" -B "$work/shared-build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DBUILD_SHARED_LIBS=ON -DKELVANE_BUILD_TESTS=OFF -DKELVANE_BUILD_BENCH=OFF \
  -DKELVANE_CHECK_HEADERS=OFF "${launcher[@]}" >"$work/shared-configure.log"
cmake --build "$work/shared-build" -j2 --target kelvane kelvane-gtk >"$work/shared-build.log" ||
  { tail -n 40 "$work/shared-build.log"; exit 1; }
cmake --install "$work/shared-build" --prefix "$work/shared" >/dev/null

step "exported symbols"
status=0
# GNUInstallDirs may pick lib/<multiarch> as the library folder.
libdir_of() { dirname "$(find "$1" -name libkelvane.so -o -name libkelvane.a | head -n 1)"; }
for name in kelvane kelvane-gtk; do
  lib="$(libdir_of "$work/shared")/lib$name.so"
  soname="$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')"
  if [ "$soname" != "lib$name.so.${version%.*}" ] && [ "$soname" != "lib$name.so.${version%%.*}" ]; then
    echo "lib$name.so: SONAME '$soname' carries no version"
    status=1
  fi
  nm -D --defined-only -C "$lib" | cut -c 20- >"$work/$name.symbols"
  offenders="$(grep -Ev '^((vtable|typeinfo|typeinfo name|VTT|construction vtable) for |(non-)?virtual thunk to )?kelvane::' \
    "$work/$name.symbols" || true)"
  echo "lib$name.so: $(wc -l <"$work/$name.symbols") exported symbols, SONAME $soname"
  if [ -n "$offenders" ]; then
    echo "lib$name.so exports $(wc -l <<<"$offenders") names outside namespace kelvane:"
    head -n 50 <<<"$offenders"
    status=1
  fi
done
[ "$status" -eq 0 ] || exit 1

# Builds the minimal host from an install, once per road, and runs it with --version.
# host_checks PREFIX NAME CXXFLAGS LDFLAGS STATIC
host_checks() {
  local prefix="$1" name="$2" cxxflags="$3" ldflags="$4" static="$5" dir out
  step "$name install: minimal host through find_package"
  dir="$work/host-$name-cmake"
  cmake -S "$example" -B "$dir" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" >"$dir.log"
  cmake --build "$dir" >>"$dir.log" || { tail -n 40 "$dir.log"; return 1; }
  run_version "$dir/minimal-host"

  step "$name install: minimal host through pkg-config"
  dir="$work/host-$name-pkgconfig"
  mkdir -p "$dir"
  PKG_CONFIG_PATH="$(libdir_of "$prefix")/pkgconfig" make -s -C "$dir" -f "$example/Makefile" VPATH="$example" \
    CXXFLAGS="$cxxflags" LDFLAGS="$ldflags" ${static:+STATIC=1} >"$dir.log" 2>&1 || { tail -n 40 "$dir.log"; return 1; }
  run_version "$dir/minimal-host"
}

run_version() {
  local out
  out="$(env -u DISPLAY -u WAYLAND_DISPLAY "$1" --version)"
  if [ "$out" != "kelvane $version" ]; then
    echo "$1 --version printed '$out', not 'kelvane $version'"
    return 1
  fi
}

host_checks "$work/shared" shared "" "" ""

step "static install of $build_dir"
cmake --install "$build_dir" --prefix "$work/static" >/dev/null
sanitize=""
if [ -n "$sanitizers" ]; then sanitize="-fsanitize=$sanitizers"; fi
host_checks "$work/static" static "$sanitize" "$sanitize" yes

step "add_subdirectory: the libraries alone"
mkdir -p "$work/subproject"
cat >"$work/subproject/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
add_subdirectory("$source_dir" kelvane)
add_executable(host "$example/main.cpp")
target_link_libraries(host PRIVATE kelvane::gtk kelvane::kelvane)
foreach(target kelvane-unit-tests kelvane-fakes kelvane-header-check bench-support kelvane-demo)
  if(TARGET \${target})
    message(FATAL_ERROR "\${target} is defined for a project that only adds kelvane")
  endif()
endforeach()
CMAKE
cmake -S "$work/subproject" -B "$work/subproject/build" -G Ninja >"$work/subproject.log" ||
  { tail -n 20 "$work/subproject.log"; exit 1; }

step "done"
