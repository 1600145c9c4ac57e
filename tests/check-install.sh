#!/usr/bin/env bash
# What the Debian package ships, checked on "cmake --install" into a temporary /usr (the
# package is built from that install): every file is there, the desktop entry, AppStream
# metadata and man page pass their validators, the polkit action names the installed
# helper, the package's version is the program's, and the package's purge removes the
# helper's module configuration and nothing else.
# Usage: check-install.sh BUILD_DIR SOURCE_DIR VERSION
set -u
build=$1 src=$2 version=$3
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vistrel-install-XXXXXX")
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

root=$tmp/root
usr=$root/usr
cmake --install "$build" --prefix "$usr" >"$tmp/install.log" 2>&1 || {
  cat "$tmp/install.log"
  echo "FAIL: cmake --install"
  exit 1
}

id=app.vistrel.Vistrel
helper=$usr/libexec/vistrel/vistrel-camera-extension-helper
for f in bin/vistrel libexec/vistrel/vistrel-camera-extension-helper; do
  [ -x "$usr/$f" ] || fail "$f is missing or not executable"
done
for f in share/polkit-1/actions/$id.policy \
  share/vistrel/Main.ui \
  share/vistrel/SystemExtensions/$id.cameraextension/manifest \
  share/vistrel/SystemExtensions/$id.cameraextension/modprobe.conf \
  share/vistrel/SystemExtensions/$id.cameraextension/modules-load.conf \
  share/doc/vistrel/camera-extension.html \
  share/applications/$id.desktop \
  share/metainfo/$id.metainfo.xml \
  share/dbus-1/interfaces/${id}1.xml \
  share/icons/hicolor/scalable/apps/$id.svg \
  share/icons/hicolor/symbolic/apps/$id-symbolic.svg \
  share/icons/hicolor/symbolic/apps/$id-held-symbolic.svg \
  share/man/man1/vistrel.1; do
  [ -f "$usr/$f" ] || fail "$f is missing"
done
# Only the helper runs as root: nothing installed may be writable by others or setuid.
found=$(find "$usr" \( -perm -o+w -o -perm -u+s -o -perm -g+s \) ! -type l)
[ -z "$found" ] || fail "writable by others or set-id: $found"

# Validators: any report, even a warning, fails.
desktop=$usr/share/applications/$id.desktop
if [ -f "$desktop" ]; then
  out=$(desktop-file-validate "$desktop" 2>&1) && [ -z "$out" ] || fail "desktop-file-validate: $out"
  icon=$(sed -n 's/^Icon=//p' "$desktop")
  [ -f "$usr/share/icons/hicolor/scalable/apps/$icon.svg" ] || fail "the desktop entry's icon $icon is not installed"
  exec_name=$(sed -n 's/^Exec=\([^ ]*\).*/\1/p' "$desktop")
  [ -x "$usr/bin/$exec_name" ] || fail "the desktop entry starts $exec_name, which is not in bin/"
fi
# validate-tree also checks the metadata against the desktop entry it launches.
out=$(appstreamcli validate-tree --no-net "$root" 2>&1) || fail "appstreamcli validate-tree: $out"
if [ -f "$usr/share/man/man1/vistrel.1" ]; then
  out=$(LC_ALL=C.UTF-8 groff -man -ww -z "$usr/share/man/man1/vistrel.1" 2>&1) && [ -z "$out" ] \
    || fail "groff: $out"
fi

# The action's exec.path is filled in at install time; pkexec matches it exactly.
policy=$usr/share/polkit-1/actions/$id.policy
grep -q "<annotate key=\"org.freedesktop.policykit.exec.path\">$helper</annotate>" "$policy" 2>/dev/null \
  || fail "the polkit action does not name the installed helper $helper"

# One version: the package's changelog and the program's.
changelog_version=$(dpkg-parsechangelog -l "$src/debian/changelog" -S Version)
[ "$changelog_version" = "$version" ] || fail "debian/changelog is at $changelog_version, the program at $version"

# The purge, run on a fake /etc and /run: the files the helper writes (named after the
# bundled extension's identifier) go, a remove keeps them, other files stay.
ext=$(sed -n 's/^Identifier=//p' "$src/resources/SystemExtensions/$id.cameraextension/manifest")
fake=$tmp/fake
sed -e "s|/etc/|$fake/etc/|g" -e "s|/run/|$fake/run/|g" "$src/debian/postrm" >"$tmp/postrm"
mkdir -p "$fake/etc/modprobe.d" "$fake/etc/modules-load.d" "$fake/run"
written=("$fake/etc/modprobe.d/$ext.conf" "$fake/etc/modules-load.d/$ext.conf"
  "$fake/etc/modprobe.d/.$ext.conf.vistrel-Ab12Cd" "$fake/run/vistrel-camera-extension.lock")
others=("$fake/etc/modprobe.d/other.conf" "$fake/etc/modules-load.d/$ext.conf.orig")
touch "${written[@]}" "${others[@]}"
sh "$tmp/postrm" remove || fail "postrm remove exited with $?"
for f in "${written[@]}"; do [ -e "$f" ] || fail "postrm remove deleted $f"; done
sh "$tmp/postrm" purge || fail "postrm purge exited with $?"
for f in "${written[@]}"; do [ ! -e "$f" ] || fail "postrm purge left $f"; done
for f in "${others[@]}"; do [ -e "$f" ] || fail "postrm purge deleted $f"; done

[ "$failures" = 0 ] || exit 1
echo "install tree, validators, polkit action, version and purge: all good"
