#!/usr/bin/env bash
# Builds the Debian package of the build in $1, checks what it declares and
# holds, unpacks it into a scratch root and runs the installed executables
# there: "capabilities" from the bridge, and one tool call through the MCP
# server, which must find the installed bridge beside itself. Then the same
# from `cmake --install` into a scratch prefix.
set -euo pipefail
build="$1"
scratch="$(mktemp -d "${TMPDIR:-/tmp}/quorvel-package.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/out" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log" >&2; fail "cpack"; }
deb="$(ls "$scratch"/out/*.deb)"
echo "package: $(basename "$deb")"

# Runtime dependencies: the shared libraries the executables link, found by
# dpkg-shlibdeps (the bridge links the others from their static archives),
# and the Tesseract packages declared by hand.
depends="$(dpkg-deb -f "$deb" Depends)"
echo "Depends: $depends"
names="$(tr ',' '\n' <<<"$depends" | awk '{ print $1 }')"
for package in libc6 libstdc++6 libxkbcommon0 libwayland-client0 libtesseract5 tesseract-ocr-eng; do
  grep -qxF "$package" <<<"$names" || fail "Depends does not name $package"
done
# Every dependency is a package that apt knows and can satisfy here.
apt-get install --simulate --no-install-recommends "$deb" >"$scratch/apt.log" 2>&1 ||
  { cat "$scratch/apt.log" >&2; fail "apt cannot satisfy the package's dependencies"; }
[ "$(dpkg-deb -f "$deb" Package)" = quorvel-bridge ] || fail "package name"

# What it holds, and what runs from where it puts it.
contents="$(dpkg-deb -c "$deb")"
for file in ./usr/bin/quorvel-bridge ./usr/bin/quorvel-mcp; do
  grep -q " $file\$" <<<"$contents" || fail "$file is not in the package"
done
dpkg-deb -x "$deb" "$scratch/root"

check_installed() {  # check_installed BINDIR
  local capabilities
  # No display and no session bus: capabilities still answers, and says so.
  capabilities="$(printf '{"version":1,"operation":"capabilities"}' | env -i "$1/quorvel-bridge")" ||
    fail "capabilities from $1 failed: $capabilities"
  [ "$capabilities" = '{"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,"platform":"linux","screen_capture":false,"version":1}}' ] ||
    fail "capabilities from $1: $capabilities"
  echo "$1/quorvel-bridge: $capabilities"
  local reply
  reply="$(printf '%s\n' '{"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"observe","arguments":{}}}' |
           env -i "$1/quorvel-mcp")"
  grep -q '"text":"Start the AT-SPI accessibility bus in this desktop session, then retry."' <<<"$reply" ||
    fail "quorvel-mcp from $1 did not run the bridge beside it: $reply"
  echo "$1/quorvel-mcp: ran the bridge beside it"
}
check_installed "$scratch/root/usr/bin"

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
check_installed "$scratch/prefix/bin"
echo "package and install: ok"
