# shellcheck shell=bash disable=SC2034
# Sets up what building and testing need: Debian packages, and a Python environment in .local/venv
# with vkctl, its pinned dependencies and oneMKL. Sourced by quickstart, check and .ci/run; safe to
# run twice, and quick then. What commands print goes to .local/log and is shown when they fail.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
VENV=$ROOT/.local/venv
LOGS=$ROOT/.local/log
JOBS=${JOBS:-$(nproc)}

BUILD_PACKAGES=(g++ cmake ninja-build python3 python3-venv ca-certificates
  libgtest-dev libgmock-dev libbenchmark-dev libmumps-seq-dev libopenblas-pthread-dev)
# What Gmsh and VTK link, though nothing opens a window; OSMesa draws VTK's pictures without one.
VKCTL_PACKAGES=(libgl1 libglu1-mesa libx11-6 libxext6 libxfixes3 libxft2 libxinerama1 libxcursor1
  libxrender1 libfontconfig1 libgomp1 libosmesa6)
CHECK_PACKAGES=(calculix-ccx)
CI_PACKAGES=(clang libclang-rt-dev libomp-dev)

# The sparse operations that the solver calls were removed in oneMKL 2026.0.
MKL_RELEASE=2025.3.1
MKL_LINKED=(libmkl_intel_lp64.a libmkl_gnu_thread.a libmkl_intel_thread.a libmkl_core.a)

say() { printf '%s\n' "$*"; }

fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# quietly NAME COMMAND...: runs the command with its output in .local/log/NAME.log.
quietly() {
  local log=$LOGS/$1.log
  shift
  mkdir -p "$LOGS"
  "$@" >"$log" 2>&1 && return
  tail -n 25 "$log" >&2
  printf 'The whole output is in %s\n' "$log" >&2
  return 1
}

as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

installed() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Installs those of the named Debian packages that are missing.
setup_packages() {
  local missing=() package
  command -v apt-get >/dev/null || fail "no apt-get here: this set-up is made for Debian 12; install by hand: $*"
  for package in "$@"; do
    installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} = 0 ] && return
  [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
    fail "packages are missing and there is neither root nor sudo; install: ${missing[*]}"
  say "Installing packages: ${missing[*]}"
  quietly apt-update as_root env DEBIAN_FRONTEND=noninteractive apt-get -q update ||
    fail "the package lists could not be fetched; is there a network?"
  quietly apt-install as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -y install --no-install-recommends "${missing[@]}" ||
    fail "packages could not be installed: ${missing[*]}"
}

# Debian's own Python first: it is the one that python3-venv belongs to.
find_python() {
  local python
  for python in /usr/bin/python3 python3.11 python3; do
    "$python" -c 'import sys, venv, ensurepip; sys.exit(sys.version_info < (3, 11))' 2>/dev/null &&
      command -v "$python" && return
  done
  fail "Python 3.11 or later with the venv module was not found"
}

# The environment with vkctl, made anew when what it is made from has changed.
setup_python() {
  local stamp=$VENV/.made_from now
  now=$(cat "$ROOT/vkctl/pyproject.toml" "$ROOT/scripts/requirements.txt" | sha256sum)
  [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$now$ROOT" ] && return
  say "Setting up Python packages in .local/venv"
  quietly venv "$(find_python)" -m venv "$VENV" || fail "the Python environment could not be made"
  quietly pip "$VENV/bin/python" -m pip install \
    --constraint "$ROOT/scripts/requirements.txt" --editable "$ROOT/vkctl[test]" ||
    fail "Python packages could not be installed; is there a network?"
  printf '%s' "$now$ROOT" >"$stamp"
}

# oneMKL into the environment, without what is not linked. Doing without it is no failure.
setup_mkl() {
  [ -f "$VENV/.mkl-$MKL_RELEASE" ] && return
  [ "$(uname -m)" = x86_64 ] || return 0
  say "Fetching oneMKL $MKL_RELEASE into .local/venv"
  if ! quietly mkl "$VENV/bin/python" -m pip install --no-deps \
    "mkl-static==$MKL_RELEASE" "mkl-include==$MKL_RELEASE"; then
    say "oneMKL could not be had: building on MUMPS and OpenBLAS instead (slower factor)"
    return
  fi
  local library
  for library in "$VENV"/lib/libmkl_*.a; do
    case " ${MKL_LINKED[*]} " in
      *" ${library##*/} "*) ;;
      *) rm "$library" ;;
    esac
  done
  touch "$VENV/.mkl-$MKL_RELEASE"
}

# Under sudo what was made belongs to the user who called it.
hand_back() {
  [ "$(id -u)" = 0 ] && [ -n "${SUDO_UID:-}" ] || return 0
  local path
  for path in .local build cantilever; do
    [ ! -e "$ROOT/$path" ] || chown -R "$SUDO_UID:${SUDO_GID:-$SUDO_UID}" "$ROOT/$path"
  done
}

# setup PACKAGE...: everything above.
setup() {
  trap hand_back EXIT
  setup_packages "$@" "${VKCTL_PACKAGES[@]}"
  setup_python
  setup_mkl
}

# The line in which the build files say what is missing, or else the second argument.
refusal() {
  sed -n "s/^ *\(vk_rund can't be built: \)/\1/p" "$1" | grep . || printf '%s' "$2"
}

# build PRESET TARGET...: configures and builds into build/PRESET.
build() {
  local preset=$1
  shift
  say "Building build/$preset"
  (cd "$ROOT" && quietly "configure-$preset" cmake --preset "$preset") ||
    fail "$(refusal "$LOGS/configure-$preset.log" "CMake could not configure the preset $preset")"
  grep -h '^-- Maths library' "$LOGS/configure-$preset.log" | sed 's/^-- /  /'
  (cd "$ROOT" && quietly "build-$preset" cmake --build "build/$preset" -j "$JOBS" ${1:+--target "$@"}) ||
    fail "the preset $preset does not build"
}
