#!/usr/bin/env bash
# Builds the Debian packages from a clean export of HEAD and uses them as an
# administrator and a host program would, without installing them:
#   1. dpkg-buildpackage -us -uc -b (tests not built: the suite has run already;
#      no debug-symbol packages; ccache through the compiler launcher the build sets up);
#   2. lintian, which must report no error;
#   3. every package unpacked into a scratch root (dpkg-deb -x);
#   4. the unpacked crateworks --version, and the unpacked reaper on the sample volume,
#      with no FERRYHOLD_FRAMEWORK_PATH: its answer must be the build tree's;
#   5. the unpacked headers checked (scripts/check-installed-headers.sh), and a small
#      program compiled and linked through pkg-config against the unpacked headers and
#      libraries, then run.
#
#   scripts/package-check.sh [--worktree] [WORK_DIR]
# WORK_DIR (default build-package) receives the export, the packages, the build log and
# the scratch root; the export's path stays the same from run to run so that ccache
# finds what the previous run compiled. --worktree packages the working tree (tracked
# and new files) instead of HEAD. The sample volume is made with BUILD_DIR's make-volume
# (default build, built when missing).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

source_from=HEAD
if [ "${1:-}" = --worktree ]; then source_from=worktree; shift; fi
work=$(realpath -m "${1:-build-package}")
build_dir=${BUILD_DIR:-build}
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

say() { echo "package-check: $*" >&2; }
fail() { say "FAILED: $*"; exit 1; }
phase_start=$SECONDS
phase() { say "$1 ($((SECONDS - phase_start)) s)"; phase_start=$SECONDS; }
started=$SECONDS

# ---- 1. build ----
version=$(cd "$repo" && dpkg-parsechangelog -S Version)
upstream=${version%%-*}
src=$work/ferryhold-$upstream
rm -rf "$work"/ferryhold-* "$work"/*.deb "$work"/*.ddeb "$work"/*.buildinfo "$work"/*.changes "$work/root" "$work/host"
mkdir -p "$src"
if [ "$source_from" = HEAD ]; then
  git archive --format=tar HEAD | tar -xf - -C "$src"
else
  git ls-files -z --cached --others --exclude-standard | tar --null -cf - -T - | tar -xf - -C "$src"
fi
if command -v ccache >/dev/null; then
  # debhelper gives the build a home of its own; the cache stays the usual one.
  CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}
  export CCACHE_DIR
fi
if ! (cd "$src" && DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" dpkg-buildpackage -us -uc -b) > "$work/build.log" 2>&1; then
  tail -40 "$work/build.log" >&2
  fail "dpkg-buildpackage (log: $work/build.log)"
fi
changes=$(ls "$work"/ferryhold_*.changes)
mapfile -t debs < <(ls "$work"/*.deb)
phase "built ${#debs[@]} packages: $(cd "$work" && ls ./*.deb | sed 's|^\./||; s|_.*||' | tr '\n' ' ')"

# ---- 2. lintian ----
if ! lintian --fail-on error --tag-display-limit 0 "$changes" > "$work/lintian.log" 2>&1; then
  cat "$work/lintian.log" >&2
  fail "lintian reports errors"
fi
grep -v "root privileges" "$work/lintian.log" | sed 's/^/  lintian: /' >&2 || true
phase "lintian: no errors, $(grep -c '^W:' "$work/lintian.log" || true) warnings"

# ---- 3. unpack ----
root=$work/root
mkdir -p "$root"
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$root"; done
libdir=$root/usr/lib/$multiarch
export LD_LIBRARY_PATH=$libdir
unset FERRYHOLD_FRAMEWORK_PATH
for lib in libferryhold-platform libcrateworks libferryhold libferryhold-diskpicker libferryhold-diskpicker-views; do
  soname=$(objdump -p "$libdir/$lib.so" | awk '$1 == "SONAME" {print $2}')
  [ "$soname" = "$lib.so.0" ] || fail "$lib.so has SONAME '$soname'"
done

# ---- 4. the unpacked tools ----
out=$("$root/usr/bin/crateworks" --version) || fail "crateworks --version"
case $out in *"$upstream"*) ;; *) fail "crateworks --version says '$out', not $upstream" ;; esac
# The tools must run on the unpacked libraries, never on others the system may hold.
for tool in reaper ferryhold crateworks ferryhold-picker; do
  ldd "$root/usr/bin/$tool" | grep -E 'lib(ferryhold|crateworks)' | grep -v "$libdir/" &&
    fail "$tool resolves a library outside the unpacked root"
done
if [ ! -x "$build_dir/bin/make-volume" ] || [ ! -x "$build_dir/bin/reaper" ]; then
  FERRYHOLD_TARGETS="reaper make-volume" bash scripts/setup.sh "$build_dir"
fi
"$build_dir/bin/make-volume" samples/sample.volume "$work/host/volume-package" >/dev/null
"$build_dir/bin/make-volume" samples/sample.volume "$work/host/volume-build" >/dev/null
"$root/usr/bin/reaper" "$work/host/volume-package" 10.7 > "$work/host/reaper-package.plist" 2> "$work/host/reaper-package.log" ||
  { cat "$work/host/reaper-package.log" >&2; fail "the unpacked reaper"; }
"$build_dir/bin/reaper" "$work/host/volume-build" 10.7 > "$work/host/reaper-build.plist" 2>/dev/null ||
  fail "the build tree's reaper"
# Missing rule data or a missing rule-data tool is only logged, so the log is read too.
if grep -E "Did not find|Missing|ERROR" "$work/host/reaper-package.log" >&2; then
  fail "the unpacked reaper did not find its bundle or its tool"
fi
grep -q "<key>ReapablePaths</key>" "$work/host/reaper-package.plist" || fail "the unpacked reaper printed no answer"
cmp -s "$work/host/reaper-package.plist" "$work/host/reaper-build.plist" ||
  { diff "$work/host/reaper-build.plist" "$work/host/reaper-package.plist" | head -20 >&2
    fail "the unpacked reaper's answer differs from the build tree's"; }
phase "unpacked tools: $out; reaper answers as the build tree's ($(grep -c '<string>' "$work/host/reaper-package.plist") paths)"

# ---- 5. headers and a host program through pkg-config ----
bash scripts/check-installed-headers.sh "$root/usr/include/ferryhold" >&2
export PKG_CONFIG_PATH=$libdir/pkgconfig
for module in ferryhold-platform crateworks ferryhold; do
  pkg-config --exists --print-errors "$module" || fail "pkg-config $module"
  cflags=$(pkg-config --cflags "$module")
  includes=$(for flag in $cflags; do [[ $flag != -I* ]] || realpath -m "${flag#-I}"; done)
  [ "$includes" = "$root/usr/include/ferryhold" ] || fail "pkg-config --cflags $module gives '$cflags'"
  [[ $cflags != *-std=* ]] || fail "pkg-config --cflags $module sets the language standard: '$cflags'"
done
# shellcheck disable=SC2046
${CXX:-c++} -std=c++20 -o "$work/host/host_program" tests/package/host_program.cpp \
  $(pkg-config --cflags --libs ferryhold) || fail "the host program does not build through pkg-config"
mkdir -p "$work/host/scratch"
host=$("$work/host/host_program" "$work/host/scratch") || fail "the host program"
bundle=$(realpath "$(sed -n 's/^bundle //p' <<<"$host")")
[ "$bundle" = "$root/usr/share/ferryhold/Ferryhold.framework" ] ||
  fail "the installed libraries found the bundle at '$bundle'"
[ "$(sed -n 's/^rules //p' <<<"$host")" != - ] || fail "the installed libraries found no rule data"
# The BOM the host program wrote, as the unpacked crateworks lists it: every entry but
# the root ".", and the same total size.
listing=$("$root/usr/bin/crateworks" bom list "$work/host/scratch/tree.bom") || fail "crateworks bom list"
[ "$(cut -f1 <<<"$listing" | tr '\n' ' ')" = "folder folder/file.txt " ] || fail "crateworks lists: $listing"
read -r _ count size < <(grep '^bom ' <<<"$host")
[ "$count" = 3 ] && [ "$size" = "$(awk -F'\t' '{s += $6} END {print s}' <<<"$listing")" ] ||
  fail "the host program reads $count entries of $size bytes; crateworks lists: $listing"
phase "host program built through pkg-config: $(tr '\n' ';' <<<"$host")"

say "passed in $((SECONDS - started)) s"
