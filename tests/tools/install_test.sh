#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a folder of its own, and builds and runs the examples against what lies there, in the two ways
# that the README shows: install_test.sh SOURCE BUILD LIBDIR
set -euo pipefail
source=$1 build=$2 libdir=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
export XDG_DATA_HOME=$work/data
cmake --install "$build" --prefix "$prefix" >/dev/null

expect() {
  local wanted=$1 got
  shift
  got=$("$@") || { echo "failed with exit code $?: $*" >&2; exit 1; }
  [ "$got" = "$wanted" ] || { echo "wanted '$wanted', got '$got' from: $*" >&2; exit 1; }
}

# The loader searches nothing but named folders: no empty or relative element, which would be the current one. What is
# installed knows no folder of its build.
checked=0
check_run_paths() {
  local file element path
  while IFS= read -r file; do
    path=$(readelf -dW "$file" 2>/dev/null | sed -n 's/.*(R\(UN\)\?PATH).*\[\(.*\)\]$/\2/p') || continue
    checked=$((checked + 1))
    [ -n "$path" ] || continue
    while IFS= read -r -d : element; do
      case $element in
        "\$ORIGIN" | "\$ORIGIN"/* | "$1"/*) ;;
        *) echo "$file searches '$element' for libraries: $path" >&2; exit 1 ;;
      esac
    done <<<"$path:"
  done
}
check_run_paths "$build" < <(find "$build/bin" "$build/lib" "$build/tests" -type f)
[ "$checked" -ge 8 ] || { echo "only $checked built files were found" >&2; exit 1; }
check_run_paths /nowhere < <(find "$prefix" -type f)
if grep -rlF -e "$build" -e "$source" "$prefix"; then
  echo "these installed files name the folder that they were built in" >&2
  exit 1
fi

"$prefix/bin/kelmtrova" token create >/dev/null
expect 'enrolled into slot 1 (thumb)' "$prefix/bin/kelmtrova" token enroll --finger thumb --label thumb
expect 'the PIN is right' "$prefix/bin/kelmtrova" token pin verify 1234

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
objcopy -O binary --only-section=.note.kelmtrova "$prefix/$libdir/libkelmtrova.so.1" "$work/note"
expect "$(tail -c 12 "$work/note" | od -An -v -t u4 | tr -s ' ' . | cut -c 2-)" pkg-config --modversion kelmtrova
read -ra flags < <(pkg-config --cflags --libs kelmtrova-simulator)
"${CC:-cc}" -std=c11 -pedantic -Wall -Wextra -Werror "$source/examples/enroll_verify.c" -o "$work/by_pkg_config" \
  "${flags[@]}"
expect 'match, result 0x00000000' env "LD_LIBRARY_PATH=$prefix/$libdir" "$work/by_pkg_config"

cmake -S "$source/examples" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
LD_LIBRARY_PATH=$prefix/$libdir ctest --test-dir "$work/build" --output-on-failure >"$work/examples" ||
  { cat "$work/examples" >&2; exit 1; }
expect 'the PIN is right' env "LD_LIBRARY_PATH=$prefix/$libdir" "$work/build/verify_pin"
# The locks that the manual shows are good C.
# shellcheck disable=SC2016  # the fences of the code
sed -n '/^```c$/,/^```$/p' "$source/docs/readers.md" | sed -n '/^#include/,$p' | sed '/^```/d' >"$work/locks.c"
grep -q MyUnlock "$work/locks.c"
"${CC:-cc}" -std=c11 -pedantic -Wall -Wextra -Werror -I"$prefix/include" -c "$work/locks.c" -o "$work/locks.o"

# From whatever folder they are built, object files are the same, with what they tell debuggers.
objects=(kelmtrova.dir/link/transport.cpp.o kelmtrova.dir/image/buffers/reduce.cpp.o kelmtrova_program.dir/tools/text.cpp.o)
for folder in here another-folder-with-a-longer-name; do
  mkdir "$work/$folder"
  tar -C "$source" --exclude=./build --exclude=./.git --exclude='./obj-*' -c . | tar -C "$work/$folder" -x
  cmake -S "$work/$folder" -B "$work/$folder/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g \
    -DKELMTROVA_DEVICE_MANAGER=OFF -DBUILD_TESTING=OFF >/dev/null
  cmake --build "$work/$folder/build" --target "${objects[@]/#/CMakeFiles/}" >/dev/null
done
for object in "${objects[@]}"; do
  cmp "$work"/{here,another-folder-with-a-longer-name}/build/CMakeFiles/"$object"
done
# Without our device manager, which that build leaves out, the package is still a whole one.
if grep -E 'lib(kelmkmgr|kelmpkcs)' "$work/here/build/cmake_install.cmake"; then
  echo "installed without being wanted" >&2
  exit 1
fi
