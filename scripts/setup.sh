#!/usr/bin/env bash
# Installs what building and testing need (Debian packages), when missing.
set -euo pipefail
packages=(g++ cmake make file libgmp-dev libgtest-dev openjdk-17-jdk-headless junit5 libjline3-java dpkg-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
