#!/usr/bin/env bash
# Installs Debian packages the project needs, only when some are missing.
# Sourced by scripts/demo, scripts/test and scripts/evaluate.

# Installs the packages given as arguments that are not installed yet.
kvaec_install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# The build, the tests and the tools (with the PipeWire plugin: its SPA
# headers, the SpeexDSP resampler, and the daemon its integration test runs;
# with the GStreamer plugin: its headers, gst-launch-1.0 and the elements its
# tests build pipelines from).
kvaec_install_deps() {
  local pkgs=(cmake make g++ pkg-config libgtest-dev googletest libbenchmark-dev
              python3-numpy python3-scipy python3-matplotlib python3-pytest
              python3-venv python3-pip python3-setuptools python3-wheel
              libsndfile1-dev libsamplerate0-dev libcli11-dev espeak-ng
              libspa-0.2-dev libspeexdsp-dev pipewire pipewire-bin
              libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
              gstreamer1.0-plugins-base gstreamer1.0-plugins-good)
  if [ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ]; then pkgs+=(g++-multilib); fi
  kvaec_install_missing "${pkgs[@]}"
}

# The peers and tools of the comparison (scripts/evaluate); the normal build
# and tests do not need them.
kvaec_install_eval_deps() {
  kvaec_install_missing libspeexdsp-dev libwebrtc-audio-processing-dev espeak-ng pkg-config \
    python3-numpy python3-scipy python3-matplotlib
}
