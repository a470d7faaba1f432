#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it the way another
# project would, touching nothing of the build tree once installed:
#   1. checks the installed tree: libzkv with its soname and links, exactly
#      the public headers (each compiles on its own), velmora.pc, the CMake
#      package, the daemon with its activation file and user unit naming the
#      installed path, the tool with its manual page, the documents; and
#      that a DESTDIR install writes the final paths, not the staging ones;
#   2. builds examples/settings-app twice against the installed tree: with
#      find_package(Velmora) (CMAKE_PREFIX_PATH) and with its Makefile
#      (pkg-config, PKG_CONFIG_PATH);
#   3. starts a private dbus-daemon whose activation directory is the
#      installed share/dbus-1/services, so the installed velmorad starts on
#      the first request, and shows that a setting written by one process of
#      the example reaches another that watches it, and that GLib's gsettings
#      tool keeps a setting there through the installed GSettings module.
# Run by ctest (tests/install/CMakeLists.txt passes the locations in the
# environment); takes about half a minute.
set -euo pipefail

src=${VELMORA_SOURCE_DIR:?}
build=${VELMORA_BUILD_DIR:?}
version=${VELMORA_VERSION:?}
cxx=${VELMORA_CXX:-c++}

work=$(mktemp -d /tmp/velmora-install-test-XXXXXX)
bus_pid=""
watch_pid=""
velmorad_pid=""
# The pid of whoever owns the daemon's name on the private bus, if anyone.
velmoradPid() {
  dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus.GetConnectionUnixProcessID string:com.vantrel.velmorad-sim 2>/dev/null | awk '{ print $2 }'
}
cleanup() {
  local pid
  # The bus started the daemon: find it before the bus goes.
  if [ -n "$bus_pid" ] && [ -z "$velmorad_pid" ]; then
    velmorad_pid=$(velmoradPid || true)
  fi
  for pid in "$watch_pid" "$velmorad_pid" "$bus_pid"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      # Not our child (the bus started it): wait by polling.
      for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    fi
  done
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
step() { echo "== $*"; }
# waitFor SECONDS COMMAND...: polls COMMAND every 0.1 s until it succeeds.
waitFor() {
  local tries=$(($1 * 10))
  shift
  while ! "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}

prefix=$work/prefix
libdir=$prefix/${VELMORA_LIBDIR:?}
includedir=$prefix/${VELMORA_INCLUDEDIR:?}
libexecdir=$prefix/${VELMORA_LIBEXECDIR:?}
bindir=$prefix/${VELMORA_BINDIR:?}
datadir=$prefix/${VELMORA_DATADIR:?}
mandir=$prefix/${VELMORA_MANDIR:?}
servicesdir=$prefix/${VELMORA_DBUS_SERVICES_DIR:?}
unitdir=$prefix/${VELMORA_SYSTEMD_USER_UNIT_DIR:?}
velmorad=$libexecdir/velmorad

step "cmake --install $build --prefix $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || {
  cat "$work/install.log"
  fail "cmake --install failed"
}

step "the installed tree"
[ "$(readlink "$libdir/libzkv.so")" = libzkv.so.0 ] || fail "libzkv.so does not link to libzkv.so.0"
[ "$(readlink "$libdir/libzkv.so.0")" = "libzkv.so.$version" ] || fail "libzkv.so.0 does not link to libzkv.so.$version"
[ -f "$libdir/libzkv.so.$version" ] || fail "no libzkv.so.$version"
soname=$(readelf -d "$libdir/libzkv.so.$version" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = libzkv.so.0 ] || fail "soname is '$soname', not libzkv.so.0"
# Internal libraries stay in the build.
found=$(find "$prefix" -name '*.a' -o -name 'velmora_*' | sed "s|^$prefix/||")
[ -z "$found" ] || fail "installed but internal: $found"

# Headers: every header of framework/include/zkv, and of the platform
# headers exactly those the public ones include, each compiling on its own.
diff -u <(cd "$src/framework/include/zkv" && ls) <(cd "$includedir/zkv" && ls) ||
  fail "include/zkv differs from framework/include/zkv"
printf '#include <zkv/%s>\n' $(cd "$includedir/zkv" && ls) >"$work/all-headers.cpp"
"$cxx" -std=c++20 -M -I"$includedir" "$work/all-headers.cpp" | tr ' \\' '\n\n' |
  grep "^$includedir/velmora/platform/" | xargs -n1 basename | LC_ALL=C sort -u >"$work/reached"
(cd "$includedir/velmora/platform" && ls | LC_ALL=C sort) >"$work/installed-platform"
diff -u --label "platform headers the public headers include" --label "installed platform headers" \
  "$work/reached" "$work/installed-platform" || fail "installed platform headers are not exactly the needed ones"
for header in $(cd "$includedir" && find zkv velmora -name '*.h' | sort); do
  echo "#include <$header>" | "$cxx" -std=c++20 -fsyntax-only -I"$includedir" -x c++ - ||
    fail "$header does not compile on its own"
done

# pkg-config and CMake package files.
export PKG_CONFIG_PATH=$libdir/pkgconfig
unset PKG_CONFIG_LIBDIR
pc() { pkg-config "$@" velmora | sed 's/ *$//'; }
[ "$(pc --modversion)" = "$version" ] || fail "velmora.pc version: $(pc --modversion)"
[ "$(pc --cflags)" = "-I$includedir" ] || fail "velmora.pc cflags: $(pc --cflags)"
[ "$(pc --libs)" = "-L$libdir -lzkv" ] || fail "velmora.pc libs: $(pc --libs)"
for file in VelmoraConfig.cmake VelmoraConfigVersion.cmake VelmoraTargets.cmake; do
  [ -f "$libdir/cmake/Velmora/$file" ] || fail "no $file"
done

# The daemon, and the two files that start it, naming the installed binary.
[ -x "$velmorad" ] || fail "no $velmorad"
grep -qx "Exec=$velmorad" "$servicesdir/com.vantrel.velmorad-sim.service" ||
  fail "activation file: $(cat "$servicesdir/com.vantrel.velmorad-sim.service")"
grep -qx "ExecStart=$velmorad" "$unitdir/velmorad.service" || fail "user unit: $(cat "$unitdir/velmorad.service")"

# The tool with its manual page, the server, the documents.
if [ "${VELMORA_HAVE_TOOL:-0}" = 1 ]; then
  [ -x "$bindir/velmora" ] || fail "no $bindir/velmora"
  if [ -f "$src/tools/velmora.1" ]; then
    [ -f "$mandir/man1/velmora.1" ] || fail "no velmora.1"
  fi
fi
if [ "${VELMORA_HAVE_SERVER:-0}" = 1 ]; then
  [ -x "$bindir/velmora-server" ] || fail "no $bindir/velmora-server"
fi
# The GSettings module in GIO's module directory, listed in its cache,
# finding the installed libzkv.
gio_modules=""
if [ -n "${VELMORA_GIO_MODULE_DIR:-}" ]; then
  gio_modules=$prefix/$VELMORA_GIO_MODULE_DIR
  [ -f "$gio_modules/libvelmora-gsettings.so" ] || fail "no $gio_modules/libvelmora-gsettings.so"
  grep -qx 'libvelmora-gsettings.so: gsettings-backend' "$gio_modules/giomodule.cache" ||
    fail "giomodule.cache does not list the module: $(cat "$gio_modules/giomodule.cache" 2>&1)"
  loaded=$(env -u LD_LIBRARY_PATH ldd "$gio_modules/libvelmora-gsettings.so" | awk '$1 == "libzkv.so.0" { print $3 }')
  [ "$(readlink -f "$loaded")" = "$(readlink -f "$libdir/libzkv.so.0")" ] ||
    fail "the GSettings module loads libzkv from '$loaded'"
fi
for doc in README.md LICENSE NOTICE; do
  [ -f "$datadir/doc/velmora/$doc" ] || fail "no share/doc/velmora/$doc"
done

# Nothing installed refers to the build tree: no text file names it, no
# program or library looks for libraries in it.
found=$(grep -rlF "$build" "$includedir" "$datadir" "$libdir/pkgconfig" "$libdir/cmake" "$unitdir" || true)
[ -z "$found" ] || fail "these name the build tree: $found"
for elf in "$libdir/libzkv.so.$version" "$velmorad" "$bindir"/* ${gio_modules:+"$gio_modules"/*.so}; do
  [ -f "$elf" ] || continue
  # Whole outputs first: under pipefail, `grep -q` closing the pipe early
  # makes the writer's SIGPIPE the pipeline's status.
  dynamic=$(readelf -d "$elf")
  if grep -E 'R(UN)?PATH' <<<"$dynamic" | grep -F "$build" >/dev/null; then
    fail "$elf has a library path into the build tree"
  fi
done

step "DESTDIR install"
stage=$work/stage
staged_prefix=/opt/velmora-install-test-$$
DESTDIR=$stage cmake --install "$build" --prefix "$staged_prefix" >"$work/install-destdir.log" 2>&1 || {
  cat "$work/install-destdir.log"
  fail "DESTDIR install failed"
}
[ ! -e "$staged_prefix" ] || fail "the DESTDIR install wrote to $staged_prefix"
grep -qx "Exec=$staged_prefix/$VELMORA_LIBEXECDIR/velmorad" \
  "$stage$staged_prefix/$VELMORA_DBUS_SERVICES_DIR/com.vantrel.velmorad-sim.service" ||
  fail "the staged activation file does not name $staged_prefix"
grep -qx "ExecStart=$staged_prefix/$VELMORA_LIBEXECDIR/velmorad" \
  "$stage$staged_prefix/$VELMORA_SYSTEMD_USER_UNIT_DIR/velmorad.service" ||
  fail "the staged user unit does not name $staged_prefix"
grep -qx "prefix=$staged_prefix" "$stage$staged_prefix/$VELMORA_LIBDIR/pkgconfig/velmora.pc" ||
  fail "the staged velmora.pc does not name $staged_prefix"
rm -rf "$stage"

step "examples/settings-app with find_package(Velmora)"
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
cmake -S "$src/examples/settings-app" -B "$work/build-cmake" "${generator[@]}" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/example-cmake.log" 2>&1 &&
  cmake --build "$work/build-cmake" >>"$work/example-cmake.log" 2>&1 || {
  cat "$work/example-cmake.log"
  fail "the find_package build failed"
}
grep -qx "Velmora_DIR:PATH=$libdir/cmake/Velmora" "$work/build-cmake/CMakeCache.txt" ||
  fail "find_package found Velmora elsewhere: $(grep Velmora_DIR "$work/build-cmake/CMakeCache.txt")"
app_cmake=$work/build-cmake/settings-app

step "examples/settings-app with pkg-config"
cp -r "$src/examples/settings-app" "$work/build-pkgconfig"
rm -rf "$work/build-pkgconfig/build"
make -C "$work/build-pkgconfig" CXX="$cxx" CXXFLAGS=-O1 >"$work/example-make.log" 2>&1 || {
  cat "$work/example-make.log"
  fail "the pkg-config build failed"
}
app_pkgconfig=$work/build-pkgconfig/settings-app

# Both load the installed libzkv: the CMake build through its rpath, the
# Makefile build (no rpath) through LD_LIBRARY_PATH.
export LD_LIBRARY_PATH=$libdir
for app in "$app_cmake" "$app_pkgconfig"; do
  loaded=$(ldd "$app" | awk '$1 == "libzkv.so.0" { print $3 }')
  [ "$loaded" = "$libdir/libzkv.so.0" ] || fail "$app loads libzkv from '$loaded'"
done
libs=$(env -u LD_LIBRARY_PATH ldd "$app_cmake")
grep -qF "libzkv.so.0 => $libdir/libzkv.so.0" <<<"$libs" ||
  fail "the find_package build does not find libzkv without LD_LIBRARY_PATH"

step "two processes on a private bus, velmorad activated from $velmorad"
mkdir -p "$work/bus" "$work/home"
cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$servicesdir</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
# The bus, the daemon it starts and the example share one scratch home, so
# the store file lands in it.
export HOME=$work/home
export ZKV_APPLICATION_ID=com.example.SettingsApp
unset DBUS_STARTER_ADDRESS DBUS_STARTER_BUS_TYPE
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=1 >"$work/bus.address" 2>"$work/bus.log" &
bus_pid=$!
waitFor 10 test -s "$work/bus.address" || fail "dbus-daemon did not start: $(cat "$work/bus.log")"
export DBUS_SESSION_BUS_ADDRESS=$(head -n 1 "$work/bus.address")

"$app_cmake" watch theme 20 >"$work/watch.out" 2>"$work/watch.err" &
watch_pid=$!
waitFor 15 grep -q '^watching theme' "$work/watch.out" ||
  fail "the watcher did not start: $(cat "$work/watch.out" "$work/watch.err")"
grep -qx 'watching theme (now unset)' "$work/watch.out" || fail "watcher: $(cat "$work/watch.out")"

"$app_pkgconfig" set theme dark || fail "set theme dark failed"
status=0
wait "$watch_pid" || status=$?
watch_pid=""
[ "$status" -eq 0 ] || fail "the watcher saw no change (exit $status): $(cat "$work/watch.out" "$work/watch.err")"
grep -qx 'theme changed to dark' "$work/watch.out" || fail "watcher: $(cat "$work/watch.out")"

[ "$("$app_pkgconfig" get theme)" = dark ] || fail "get theme: $("$app_pkgconfig" get theme)"
[ "$("$app_cmake" list)" = "theme = dark" ] || fail "list: $("$app_cmake" list)"
[ -f "$HOME/Library/Quellstore/$ZKV_APPLICATION_ID.plist" ] || fail "no store file in the scratch home"

if [ -n "$gio_modules" ]; then
  mkdir -p "$work/schemas"
  cat >"$work/schemas/com.example.SettingsApp.gschema.xml" <<'SCHEMA'
<schemalist><schema id="com.example.SettingsApp" path="/com/example/SettingsApp/">
  <key name="font" type="s"><default>''</default></key>
</schema></schemalist>
SCHEMA
  glib-compile-schemas "$work/schemas" || fail "glib-compile-schemas failed"
  gs() { GSETTINGS_SCHEMA_DIR=$work/schemas GIO_EXTRA_MODULES=$gio_modules GSETTINGS_BACKEND=velmora gsettings "$@"; }
  gs set com.example.SettingsApp font "'Sans 12'" || fail "gsettings set through the installed module failed"
  [ "$(gs get com.example.SettingsApp font)" = "'Sans 12'" ] || fail "gsettings get: $(gs get com.example.SettingsApp font)"
  [ "$("$app_pkgconfig" get font)" = "Sans 12" ] || fail "the example reads font as $("$app_pkgconfig" get font)"
fi

# The daemon that answered is the installed one.
velmorad_pid=$(velmoradPid)
[ -n "$velmorad_pid" ] || fail "nobody owns com.vantrel.velmorad-sim"
running=$(readlink -f "/proc/$velmorad_pid/exe")
[ "$running" = "$(readlink -f "$velmorad")" ] || fail "the bus started $running, not $velmorad"

echo "PASS: installed into a temporary prefix, built the example both ways, a write reached the other process${gio_modules:+, gsettings kept a setting through the installed module}"
