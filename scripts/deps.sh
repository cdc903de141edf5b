#!/usr/bin/env bash
# Installs the build and test dependencies from Debian 12's packages (as root, or through sudo).
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config curl
          libcurl4-openssl-dev nlohmann-json3-dev libsimdjson-dev libsqlite3-dev
          libncurses-dev tmux neomutt aerc  # the terminal panel, and its end-to-end tests
          thunderbird xvfb xclip unzip      # the Thunderbird add-on's end-to-end test and package
          nodejs                            # the add-on's helpers' tests
          libgtest-dev libgmock-dev libbenchmark-dev
          libgumbo-dev python3-lxml  # the last two for bench_html's comparisons
          dpkg-dev file groff-base zsh)  # the .deb (dpkg-shlibdeps, CPack's ELF check), and
                                         # checking the manual page and the zsh completion
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi
