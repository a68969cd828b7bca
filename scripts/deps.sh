#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need,
# only when some are missing. Sourced by scripts/demo and scripts/test.
kvaec_install_deps() {
  local pkgs=(cmake make g++ pkg-config libgtest-dev googletest libbenchmark-dev
              python3-numpy python3-scipy python3-matplotlib libsndfile1-dev)
  if [ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ]; then pkgs+=(g++-multilib); fi
  local missing=()
  for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
