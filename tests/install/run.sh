#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds a small outside project
# against it twice: with CMake's find_package(ZUBCocoa) (shared and static
# targets) and with pkg-config (shared, and static with the private
# requirements). Each program registers with the installed zub-collector.
# Last, the C++ snippets of README.md (each marked "<!-- snippet: NAME ... -->")
# are built as they stand with the pkg-config flags.
#
# Then the C interface: the C example built as C99 against both libraries, and the
# Python module imported from where the install put it.
#
#   run.sh BUILD_DIR WORK_DIR CXX_COMPILER GENERATOR [SANITIZE] [C_COMPILER]
set -euo pipefail
build_dir=$1
work=$2
cxx=$3
generator=$4
sanitize=${5:-}
cc=${6:-cc}
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$work"
mkdir -p "$work/home"
prefix="$work/prefix"
flags=()
[ -n "$sanitize" ] && flags=(-fsanitize="$sanitize" -fno-omit-frame-pointer)

step() { echo "-- $*"; }

step "cmake --install into $prefix"
cmake --install "$build_dir" --prefix "$prefix" >"$work/install.log"
for f in include/ZUBCocoa/ZUBCocoa.h lib/cmake/ZUBCocoa/ZUBCocoaConfig.cmake \
  lib/cmake/ZUBCocoa/ZUBCocoaConfigVersion.cmake lib/pkgconfig/ZUBCocoa.pc bin/zub-collector; do
  [ -e "$prefix/$f" ] || { echo "not installed: $f" >&2; exit 1; }
done
libdir=$(dirname "$(find "$prefix" -name 'libZUBCocoa.so' -print -quit)")
[ -f "$libdir/libZUBCocoa.a" ] || { echo "no static library next to $libdir/libZUBCocoa.so" >&2; exit 1; }

# The programs run with a home of their own and talk to the installed collector.
export HOME="$work/home"
unset XDG_CONFIG_HOME XDG_DATA_HOME XDG_DOCUMENTS_DIR
# The files exist before the collector starts, so the first read never races its start.
: >"$work/collector.out"
: >"$work/collector.log"
"$prefix/bin/zub-collector" --port 0 --db "$work/collector.db" --quiet >"$work/collector.out" 2>"$work/collector.log" &
collector=$!
trap 'kill -TERM $collector 2>/dev/null || true; wait $collector 2>/dev/null || true' EXIT
port=""
for _ in $(seq 1 300); do
  port=$(sed -n 's/^{"event":"listening".*"port":\([0-9]*\).*/\1/p' "$work/collector.out")
  [ -n "$port" ] && break
  kill -0 $collector 2>/dev/null || break
  sleep 0.1
done
[ -n "$port" ] || { echo "the installed collector did not start:" >&2; cat "$work/collector.log" >&2; exit 1; }

run() {  # run NAME PROGRAM: the program must print its mid and exit 0
  local out
  out=$("$2" "http://127.0.0.1:$port") || { echo "$1 failed: $out" >&2; exit 1; }
  echo "$out" | grep -Eq '^mid [0-9a-f]{32}$' || { echo "$1 printed: $out" >&2; exit 1; }
  echo "   $1: $out"
}

step "find_package(ZUBCocoa) from an outside CMake project"
cmake -S "$here/consumer" -B "$work/cmake" -G "$generator" -DCMAKE_BUILD_TYPE= \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="${flags[*]}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]}" >"$work/cmake-configure.log"
cmake --build "$work/cmake" -j 2 >"$work/cmake-build.log" || { cat "$work/cmake-build.log" >&2; exit 1; }
run "find_package, shared" "$work/cmake/zub-consumer-shared"
run "find_package, static" "$work/cmake/zub-consumer-static"

step "pkg-config ZUBCocoa"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
pkg-config --exists --print-errors ZUBCocoa
[ "$(pkg-config --modversion ZUBCocoa)" = "$(sed -n 's/^Version: //p' "$libdir/pkgconfig/ZUBCocoa.pc")" ]
# The file names the prefix it was installed to, wherever that is.
[ "$(pkg-config --variable=libdir ZUBCocoa)" -ef "$libdir" ] || {
  echo "pkg-config libdir $(pkg-config --variable=libdir ZUBCocoa) is not $libdir" >&2
  exit 1
}
read -r -a cflags <<<"$(pkg-config --cflags ZUBCocoa)"
read -r -a libs <<<"$(pkg-config --libs ZUBCocoa)"
# The static library with its private requirements linked as shared libraries
# (`--static` would also ask for the requirements' own static dependencies).
read -r -a private_modules <<<"$(pkg-config --print-requires-private ZUBCocoa | cut -d' ' -f1 | tr '\n' ' ')"
read -r -a static_libs <<<"$(pkg-config --libs-only-L ZUBCocoa) $(pkg-config --libs "${private_modules[@]}") -pthread"
"$cxx" -std=c++20 -Wall -Wextra -Werror "${flags[@]}" "${cflags[@]}" -c "$here/consumer/main.cpp" -o "$work/main.o"
"$cxx" "${flags[@]}" "$work/main.o" -o "$work/pc-shared" "${libs[@]}" -Wl,-rpath,"$libdir"
"$cxx" "${flags[@]}" "$work/main.o" -o "$work/pc-static" -Wl,-Bstatic -lZUBCocoa -Wl,-Bdynamic "${static_libs[@]}"
if ldd "$work/pc-static" | grep -q libZUBCocoa; then
  echo "the static pkg-config build still loads the shared library" >&2
  exit 1
fi
run "pkg-config, shared" "$work/pc-shared"
run "pkg-config, static" "$work/pc-static"

step "the C interface from a C99 program (pkg-config)"
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "${flags[@]}" "${cflags[@]}" -c "$here/../../examples/c-host/CHost.c" \
  -o "$work/c-host.o"
"$cc" "${flags[@]}" "$work/c-host.o" -o "$work/c-host" "${libs[@]}" -Wl,-rpath,"$libdir"
"$cc" "${flags[@]}" "$work/c-host.o" -o "$work/c-host-static" -Wl,-Bstatic -lZUBCocoa -Wl,-Bdynamic "${static_libs[@]}" \
  -lstdc++ -lm
run "C, shared" "$work/c-host"
run "C, static" "$work/c-host-static"

step "the Python module from the install"
# A sanitized library needs its runtime first in python3: GCC's ASan runtime is preloaded.
pyenv=(env -u ZUBCOCOA_LIBRARY PYTHONDONTWRITEBYTECODE=1)
runtime=""
case "$sanitize" in
  "") ;;
  *thread*) ;;
  *address*) runtime=$("$cxx" -print-file-name=libasan.so) ;;
esac
if [ -n "$sanitize" ] && [ ! -f "$runtime" ]; then
  echo "   skipped: no sanitizer runtime to preload into python3 for -fsanitize=$sanitize"
else
  [ -n "$runtime" ] && pyenv+=(LD_PRELOAD="$runtime" ASAN_OPTIONS=detect_leaks=0)
  site=$(dirname "$(find "$prefix" -path '*/zubcocoa/__init__.py' -print -quit)")
  [ -f "$site/_location.py" ] || { echo "zubcocoa is not installed under $prefix" >&2; exit 1; }
  pyenv+=(PYTHONPATH="$(dirname "$site")" "${ZUB_PYTHON3:-python3}")
  # Found beside the module, with no variable pointing at it.
  loaded=$("${pyenv[@]}" -c 'import zubcocoa; print(zubcocoa._lib._name)')
  [ "$loaded" -ef "$libdir/libZUBCocoa.so.1" ] || { echo "zubcocoa loaded $loaded, not $libdir/libZUBCocoa.so.1" >&2; exit 1; }
  # A copy of the example: run from python/, it would import the module beside it.
  cp "$here/../../python/example.py" "$work/example.py"
  out=$("${pyenv[@]}" "$work/example.py" "http://127.0.0.1:$port")
  echo "$out" | grep -Eq '^mid [0-9a-f]{32}$' || { echo "python example printed: $out" >&2; exit 1; }
  echo "   python: $out"
fi

# The C++ block that follows "<!-- snippet: NAME" in README.md.
snippet() {
  awk -v marker="<!-- snippet: $1 " '
    index($0, marker) == 1 { armed = 1; next }
    armed && $0 == "```cpp" { inside = 1; next }
    inside && $0 == "```" { exit }
    inside { print }' "$here/../../README.md"
}
step "the README's snippets"
for name in host privacy; do
  snippet "$name" >"$work/snippet-$name.cpp"
  [ -s "$work/snippet-$name.cpp" ] || { echo "README.md has no snippet \"$name\"" >&2; exit 1; }
  "$cxx" -std=c++20 -Wall -Wextra -Werror "${flags[@]}" "${cflags[@]}" -c "$work/snippet-$name.cpp" \
    -o "$work/snippet-$name.o"
  echo "   $name: compiles"
done
# The host snippet is a whole program: it links too (it is not run: it would
# report to the example collector it names).
"$cxx" "${flags[@]}" "$work/snippet-host.o" -o "$work/snippet-host" "${libs[@]}" -Wl,-rpath,"$libdir"
echo "   host: links"

echo "install test passed"
