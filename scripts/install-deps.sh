#!/usr/bin/env bash
# Installs everything Brightmix needs to build, run and test on Debian 12.
# Run as root (or through sudo). Safe to run again: apt skips what is present.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
        exec sudo -E "$0" "$@"
    fi
    echo "install-deps.sh: run as root" >&2
    exit 1
fi

export DEBIAN_FRONTEND=noninteractive

packages=(
    # toolchain
    build-essential cmake ninja-build pkg-config git
    clang clang-format clang-tidy libclang-rt-14-dev
    # test and benchmark frameworks
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    # recording: WAV through libsndfile, M4A (AAC) through FFmpeg
    libsndfile1-dev libavcodec-dev libavformat-dev libavutil-dev libswresample-dev
    # JSON coding of the saved rules and labels; the Linux settings file (property list)
    nlohmann-json3-dev libplist-dev
    # the real audio server for the Linux backend and its end-to-end tests
    pipewire pipewire-bin libspa-0.2-modules libpipewire-0.3-dev wireplumber
    pipewire-pulse pulseaudio-utils sox
    # the desktop application: Qt 6 widgets, and a virtual X server with fonts for its tests
    qt6-base-dev libqt6svg6 libgl-dev breeze-icon-theme xvfb xauth fonts-dejavu-core
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ "${#missing[@]}" -eq 0 ]; then
    echo "install-deps.sh: everything is installed"
    exit 0
fi

echo "install-deps.sh: installing ${missing[*]}"
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
