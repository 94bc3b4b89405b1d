#!/bin/sh
# Installs the build into a scratch prefix, then builds a small C daemon
# against it through pkg-config and through the CMake package, and runs both.
set -eu
src=$1; build=$2; work=$3
rm -rf "$work"; mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
test -e "$prefix/lib/libqvmodule.so.0"
test -e "$prefix/include/qvmodule/qv_daemon.h"
test -e "$prefix/include/qvmodule/jrpc.h"
test -e "$prefix/include/qvmodule/qv_version.h"

# The pkg-config file and the CMake package carry the header's version.
version=$(sed -n 's/^#define QV_VERSION_STRING "\(.*\)"$/\1/p' "$prefix/include/qvmodule/qv_version.h")
test -n "$version"
if [ "$(pkg-config --modversion qvmodule)" != "$version" ]; then
  echo "pkg-config says $(pkg-config --modversion qvmodule), the header $version" >&2
  exit 1
fi

cc -std=c11 -Wall -Werror -o "$work/consumer_pc" "$src/examples/consumer.c" \
   $(pkg-config --cflags --libs qvmodule)
LD_LIBRARY_PATH=$prefix/lib "$work/consumer_pc" "$work/pc.log"
grep -q "consumer_pc\]  qv_daemon_init: Daemon(consumer_pc) starting" "$work/pc.log"
grep -q "consumer: built against $version, running $version" "$work/pc.log"

mkdir -p "$work/cm"
cat > "$work/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(qvmodule $version EXACT REQUIRED)
add_executable(consumer_cm $src/examples/consumer.c)
target_link_libraries(consumer_cm PRIVATE qvmodule::qvmodule)
CM
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
LD_LIBRARY_PATH=$prefix/lib "$work/cm/build/consumer_cm" "$work/cm.log"
grep -q "consumer_cm\]  qv_daemon_init: Daemon(consumer_cm) starting" "$work/cm.log"
# The sample daemon runs from the prefix, finding the library beside it.
if [ -e "$build/examples/qvtestd" ]; then
  env -u LD_LIBRARY_PATH "$prefix/sbin/qvtestd" -h >/dev/null
fi
echo "install consumer: ok"
