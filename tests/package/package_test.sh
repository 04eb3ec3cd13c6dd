#!/bin/sh
# The Debian package. `build`: scripts/package makes it; its files, version, computed dependencies,
# lintian and the manual (rendered without warnings, naming every option --help names).
# `install` (root only): dpkg -i, the installed almanor runs, dpkg -r leaves nothing behind.
# Usage: package_test.sh build|install SOURCE_ROOT VERSION
set -u
mode=$1 root=$2 version=$3
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
arch=$(dpkg --print-architecture)
lib=usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)/almanor
deb=$root/build/package/almanor_${version}_$arch.deb

if [ "$mode" = build ]; then
  # Debian's flags without -g: the debugging information is stripped from the package anyway, and
  # writing it is a good part of the test's time.
  DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" \
    "$root/scripts/package" >"$T/out" 2>"$T/log" ||
    { tail -n 30 "$T/log" >&2; fail "scripts/package"; }
  [ "$(tail -n 1 "$T/out")" = "$deb" ] || fail "scripts/package printed $(tail -n 1 "$T/out"), not $deb"
  [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "the package's version is not $version"
  dpkg-deb -f "$deb" Depends | grep -q 'libsqlite3-0 (>=' || fail "no computed dependencies"

  # Every file, and nothing else.
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sort >"$T/files"
  sort >"$T/expected" <<EOF
./usr/bin/almanor
./usr/libexec/almanor/almanor-tray
./$lib/libalmanor-$version.so
./$lib/libalmanor-dates-$version.so
./$lib/almanor-window.so
./$lib/almanor-caldav.so
./usr/share/applications/com.vostrel.Almanor.desktop
./usr/share/metainfo/com.vostrel.Almanor.metainfo.xml
./usr/share/icons/hicolor/scalable/apps/com.vostrel.Almanor.svg
./usr/share/icons/hicolor/symbolic/apps/com.vostrel.Almanor-symbolic.svg
./usr/share/man/man1/almanor.1.gz
./usr/share/locale/cs/LC_MESSAGES/almanor.mo
./usr/share/locale/de/LC_MESSAGES/almanor.mo
./usr/share/bash-completion/completions/almanor
./usr/share/zsh/vendor-completions/_almanor
./usr/share/fish/vendor_completions.d/almanor.fish
./usr/share/doc/almanor/copyright
./usr/share/doc/almanor/changelog.gz
EOF
  diff -u "$T/expected" "$T/files" >&2 || fail "the package's files differ (- expected, + packaged)"

  lintian --pedantic --fail-on error "$deb" >"$T/lintian" 2>&1 || { cat "$T/lintian" >&2; fail "lintian"; }
  cat "$T/lintian"

  # The manual renders cleanly and names every option of every command's --help.
  dpkg-deb -x "$deb" "$T/root"
  manual=$T/root/usr/share/man/man1/almanor.1.gz
  MANWIDTH=80 man --warnings -l "$manual" >/dev/null 2>"$T/warnings" || fail "man -l failed"
  [ ! -s "$T/warnings" ] || { cat "$T/warnings" >&2; fail "the manual renders with warnings"; }
  # (Its source, where no line break can split an option.)
  zcat "$manual" | sed 's/\\f[BIR]//g' >"$T/manual"
  almanor=$T/root/usr/bin/almanor
  [ "$("$almanor" --version)" = "almanor $version" ] || fail "almanor --version is not $version"
  for command in "" "events list" "events add" "events edit" "events delete" "select" "status" \
    "cloud login" "cloud logout" "cloud status" "sync"; do
    # shellcheck disable=SC2086 # the command's words
    for option in $("$almanor" $command --help | grep -oE -- '--[a-z][a-z-]+' | sort -u); do
      grep -qE -- "(^|[^a-z-])$option([^a-z-]|$)" "$T/manual" ||
        fail "almanor(1) does not name $option of 'almanor $command'"
    done
  done
  exit 0
fi

# install
if [ "$(id -u)" -ne 0 ]; then
  echo "SKIPPED: installing the package needs root"
  exit 77
fi
if dpkg-query -W -f '${Status}' almanor 2>/dev/null | grep -q 'ok installed'; then
  echo "SKIPPED: an almanor package is installed here already; it is left alone"
  exit 77
fi
dpkg -i "$deb" >"$T/log" 2>&1 || { cat "$T/log" >&2; dpkg -r almanor >/dev/null 2>&1; fail "dpkg -i"; }
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { sub(/^\./, "", $6); print $6 }' >"$T/files"
mkdir "$T/home"
run() { env -i PATH=/usr/bin:/bin HOME="$T/home" /usr/bin/almanor "$@"; }
out=$(run --version) && [ "$out" = "almanor $version" ] &&
  run events add Launch --date 2031-01-05 >/dev/null && status=$(run status) &&
  # The installed modules are found from /usr/bin: logging out without an account loads the CalDAV one.
  logout=$(run cloud logout 2>&1)
rc=$?
dpkg -r almanor >"$T/log" 2>&1 || { cat "$T/log" >&2; fail "dpkg -r"; }
[ $rc -eq 0 ] || fail "the installed almanor: '$out' '${status:-}' '${logout:-}'"
case $status in "Launch "*" days") ;; *) fail "almanor status printed '$status'" ;; esac
[ "$logout" = "no cloud account" ] || fail "almanor cloud logout: $logout"
[ -f "$T/home/.local/share/Almanor/EventsV1.db" ] || fail "the store is not in the home folder"
while read -r f; do
  [ ! -e "$f" ] || fail "$f is left after dpkg -r"
done <"$T/files"
for d in /usr/libexec/almanor "/$lib"; do
  [ ! -e "$d" ] || fail "$d is left after dpkg -r"
done
