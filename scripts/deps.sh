#!/usr/bin/env bash
# Installs the Debian packages that building and testing need (only those
# missing). Sourced by the other scripts; run as root or with sudo.
KORMO_PACKAGES=(
  build-essential cmake pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  default-jdk-headless junit5
  libclamav-dev clamav clamav-daemon clamdscan libmagic-dev zlib1g-dev
  valgrind file python3
  libssl-dev c-icap libc-icap-mod-virus-scan
  libyara-dev
)

kormo_install_deps() {
  kormo_install_packages "${KORMO_PACKAGES[@]}"
}

# Installs the named packages that are missing.
kormo_install_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -q
  # clamav-daemon must not start a system daemon or download signatures here.
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
  $sudo systemctl disable --now clamav-freshclam clamav-daemon >/dev/null 2>&1 || true
  # c-icap: the ICAP tests start their own server; no system one on port 1344.
  $sudo systemctl disable --now c-icap >/dev/null 2>&1 || true
}
