#!/usr/bin/env bash
# Makes the Debian package of both programs, for the release of this machine:
# build/package/vk-rund_VERSION_ARCHITECTURE.deb
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

trap hand_back EXIT
setup_packages "${BUILD_PACKAGES[@]}" "${OPEN_PACKAGES[@]}" dpkg-dev file
build package vk_rund
cd "$ROOT"
rm -f build/package/*.deb
quietly cpack cpack --preset package || fail "the package could not be made"
ls build/package/*.deb
