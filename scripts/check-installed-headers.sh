#!/usr/bin/env bash
# Checks the installed public headers: every header they include with quotes is
# installed too, and all of them compile together with nothing but the installed
# include directory (and fmt's) on the path.
#   scripts/check-installed-headers.sh INCLUDE_DIR          (.../include/ferryhold)
#   scripts/check-installed-headers.sh --install BUILD_DIR  (installs the development
#                                                            component into a scratch prefix first)
set -euo pipefail

if [ "${1:-}" = --install ]; then
  build=${2:?usage: check-installed-headers.sh --install BUILD_DIR}
  scratch=$(mktemp -d)
  trap 'rm -rf "$scratch"' EXIT
  cmake --install "$build" --component development --prefix "$scratch" >/dev/null
  dir=$scratch/include/ferryhold
else
  dir=${1:?usage: check-installed-headers.sh INCLUDE_DIR | --install BUILD_DIR}
fi
[ -d "$dir" ] || { echo "check-installed-headers: $dir is not a directory" >&2; exit 1; }

mapfile -t headers < <(cd "$dir" && find . -name '*.h' -type f | sed 's|^\./||' | LC_ALL=C sort)
[ ${#headers[@]} -gt 0 ] || { echo "check-installed-headers: no headers in $dir" >&2; exit 1; }

status=0
for h in "${headers[@]}"; do
  while IFS= read -r included; do
    if [ ! -f "$dir/$included" ]; then
      echo "check-installed-headers: $h includes \"$included\", which is not installed" >&2
      status=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$dir/$h")
done

# One translation unit with every header: a header that needs one that is missing, or
# that reaches the source tree through <...>, fails here.
tu=$(mktemp --suffix=.cpp)
trap 'rm -f "$tu"; [ -z "${scratch:-}" ] || rm -rf "$scratch"' EXIT
for h in "${headers[@]}"; do echo "#include \"$h\""; done > "$tu"
# shellcheck disable=SC2046
if ! ${CXX:-c++} -std=c++20 -fsyntax-only -I"$dir" $(pkg-config --cflags fmt) "$tu"; then
  echo "check-installed-headers: the installed headers do not compile together" >&2
  status=1
fi
[ $status -eq 0 ] && echo "check-installed-headers: ${#headers[@]} headers, all includes installed, they compile"
exit $status
