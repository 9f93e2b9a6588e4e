#!/usr/bin/env bash
# Installs what building needs (Debian packages), when missing; with --tests,
# also what only the tests need (Jupyter, for the notebook kernel's tests).
set -euo pipefail
packages=(g++ cmake make file libgmp-dev libgtest-dev openjdk-17-jdk-headless junit5 libjline3-java dpkg-dev
          libjeromq-java libgoogle-gson-java libbatik-java)
if [[ ${1-} == --tests ]]; then
  packages+=(python3-jupyter-kernel-test python3-jupyter-client jupyter-client jupyter-nbconvert python3-nbclient
             jupyter-notebook
             maven libmaven-compiler-plugin-java libmaven-resources-plugin-java libmaven-jar-plugin-java
             libsurefire-java unzip libxml2-utils slurm-wlm munge
             iproute2 util-linux)
fi
# The notebook's syntax highlighting is tested under Node: any node on the PATH will do.
if [[ ${1-} == --tests ]] && ! command -v node >/dev/null; then
  packages+=(nodejs)
fi
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
