#!/usr/bin/env bash
# Installs the Debian packages Almanor needs to build, test and benchmark; does nothing when
# they are all there already.
set -euo pipefail

packages=(
  # build
  g++ make cmake pkg-config ccache
  libsqlite3-dev libicu-dev uuid-dev libglib2.0-dev
  libcli11-dev nlohmann-json3-dev
  libgtkmm-3.0-dev libdbusmenu-glib-dev libayatana-appindicator3-dev
  libcurl4-openssl-dev libxml2-dev libical-dev libsecret-1-dev
  scdoc gettext
  # the Debian package (scripts/package) and its checks
  dpkg-dev debhelper fakeroot lintian man-db
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  sqlite3 hyperfine fish
  locales
  clang libclang-rt-14-dev clang-format clang-tidy
  desktop-file-utils appstream
  xvfb xauth x11-utils imagemagick dbus-x11 at-spi2-core python3-dogtail xdotool
  xserver-xorg-core xserver-xorg-video-dummy
  ayatana-indicator-application xfce4-panel xfce4-indicator-plugin
  python3-radicale xandikos python3-caldav gnome-keyring libsecret-tools vdirsyncer
  glib-networking librsvg2-common
  # the README's screenshots (scripts/screenshots.py)
  xfwm4 xfce4-notifyd xfconf
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get -o DPkg::Lock::Timeout=600 update -qq >&2
$sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}" >&2
