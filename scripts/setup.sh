# shellcheck shell=bash disable=SC2034
# Sets up what building and testing need: Debian packages, and a Python environment in .local/venv
# with vkctl, its pinned dependencies and oneMKL. Sourced by quickstart, check and .ci/run; safe to
# run twice, and quick then. What commands print goes to .local/log and is shown when they fail.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
VENV=$ROOT/.local/venv
LOGS=$ROOT/.local/log
JOBS=${JOBS:-$(nproc)}

BUILD_PACKAGES=(g++ cmake ninja-build python3 python3-venv ca-certificates)
# The open maths libraries: what stands in for oneMKL where it can't be had.
OPEN_PACKAGES=(libmumps-seq-dev libopenblas-pthread-dev)
# For the tests: their libraries, and what Gmsh and VTK link though nothing opens a window; OSMesa
# draws VTK's pictures without one.
CHECK_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev "${OPEN_PACKAGES[@]}"
  libgl1 libglu1-mesa libx11-6 libxext6 libxfixes3 libxft2 libxinerama1 libxcursor1
  libxrender1 libfontconfig1 libgomp1 libosmesa6)
# Another solver that the verification compares with; Debian 13 hasn't got it.
PEER_PACKAGE=calculix-ccx
# The browser that the tests look at reports with; without it they are skipped.
BROWSER_PACKAGES=(chromium chromium-driver)
CI_PACKAGES=(clang clang-tidy libclang-rt-dev libomp-dev)

# Back end of what is built: auto is oneMKL, which is fetched, or else the open libraries.
VK_MATH=${VK_MATH:-auto}
MKL_LINKED=(libmkl_intel_lp64.a libmkl_gnu_thread.a libmkl_intel_thread.a libmkl_core.a)

# What a list of Python packages fetches and takes, about.
declare -A SIZES=(
  [requirements.txt]="about 90 MB to fetch, 340 MB on disk"
  [requirements-check.txt]="about 270 MB to fetch, 950 MB on disk"
  [requirements-mkl.txt]="about 250 MB to fetch, 700 MB on disk"
)

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
  command -v apt-get >/dev/null || fail "no apt-get here: this set-up is made for Debian 12 and 13; install by hand: $*"
  for package in "$@"; do
    installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} = 0 ] && return
  say "Installing packages: ${missing[*]}"
  [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
    fail "packages are missing and there is neither root nor sudo; install: ${missing[*]}"
  quietly apt-update as_root env DEBIAN_FRONTEND=noninteractive apt-get -q update ||
    fail "the package lists could not be fetched; is there a network?"
  apt-get --assume-no install --no-install-recommends "${missing[@]}" 2>/dev/null |
    sed -n 's/^Need to get \(.*\) of archives.*/  \1 to fetch/p; s/^After this operation, \(.*\) of additional.*/  \1 on disk/p' || true
  quietly apt-install as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -y install --no-install-recommends "${missing[@]}" ||
    fail "packages could not be installed: ${missing[*]}"
}

# The other solver, where this release has it.
setup_peer() {
  # Taken whole: a search that ends at its first hit would end apt-cache too, as a failure of the pipe.
  local policy
  policy=$(apt-cache policy "$PEER_PACKAGE" 2>/dev/null) || true
  if [[ $policy == *"Candidate: "[0-9]* ]]; then
    setup_packages "$PEER_PACKAGE"
  else
    export VK_NO_PEER=1
    say "$PEER_PACKAGE is not in this release: the verification does without that comparison"
  fi
}

# The browser, where this release has it.
setup_browser() {
  local policy
  policy=$(apt-cache policy "${BROWSER_PACKAGES[@]}" 2>/dev/null) || true
  if [ "$(grep -c 'Candidate: [0-9]' <<<"$policy")" = ${#BROWSER_PACKAGES[@]} ]; then
    setup_packages "${BROWSER_PACKAGES[@]}"
  else
    say "${BROWSER_PACKAGES[*]} are not in this release: tests of pages in a browser are skipped"
  fi
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

# Into the environment from a list with hashes. Nothing is kept twice: no cache of downloads unless
# PIP_CACHE_DIR names one, and code is compiled when it is first used.
pip_list() {
  local list=$1 cache=(--no-cache-dir)
  shift
  [ -z "${PIP_CACHE_DIR:-}" ] || cache=()
  quietly "pip-$list" "$VENV/bin/python" -m pip install --no-compile "${cache[@]}" \
    --require-hashes -r "$ROOT/scripts/$list" "$@"
}

made_from() {
  printf '%s %s' "$(cat "$ROOT/pyproject.toml" "$ROOT/scripts/$1" | sha256sum)" "$ROOT"
}

is_made() {
  [ -f "$VENV/.made_from-$1" ] && [ "$(cat "$VENV/.made_from-$1")" = "$(made_from "$1")" ]
}

# The environment with vkctl and the packages of a list, made anew when one of them has changed.
setup_python() {
  local list=$1
  is_made "$list" || is_made requirements-check.txt && return
  say "Setting up Python packages in .local/venv: ${SIZES[$list]}"
  quietly venv "$(find_python)" -m venv "$VENV" || fail "the Python environment could not be made"
  pip_list "$list" || fail "Python packages could not be installed; is there a network?"
  quietly pip-vkctl "$VENV/bin/python" -m pip install --no-build-isolation --no-deps --editable "$ROOT" ||
    fail "vkctl could not be installed"
  # The process that reads parts can't write: it would compile its own modules each time.
  find "$ROOT/vkctl/src/vkctl/prepare" "$VENV"/lib/python3*/site-packages -path '*/vkctl/prepare/*.py' -o -name gmsh.py |
    quietly compile "$VENV/bin/python" -m compileall -q -i - || fail "Python code could not be compiled"
  made_from "$list" >"$VENV/.made_from-$list"
}

# The maths library that was chosen: oneMKL into the environment, without what is not linked, or the
# open libraries where that can't be had.
setup_maths() {
  [ "$VK_MATH" = open ] || setup_mkl || [ "$VK_MATH" = mkl ] || VK_MATH=open
  [ "$VK_MATH" != open ] || setup_packages "${OPEN_PACKAGES[@]}"
}

setup_mkl() {
  local list=requirements-mkl.txt library
  is_mkl_made "$list" && return
  [ "$(uname -m)" = x86_64 ] || return 1
  say "Fetching oneMKL into .local/venv: ${SIZES[$list]}"
  if ! pip_list "$list" --no-deps; then
    say "oneMKL could not be had: building on MUMPS and OpenBLAS instead (slower factor)"
    return 1
  fi
  for library in "$VENV"/lib/libmkl_*.a; do
    case " ${MKL_LINKED[*]} " in
      *" ${library##*/} "*) ;;
      *) rm "$library" ;;
    esac
  done
  sha256sum <"$ROOT/scripts/$list" >"$VENV/.mkl_made_from"
}

is_mkl_made() {
  [ -f "$VENV/.mkl_made_from" ] && [ "$(cat "$VENV/.mkl_made_from")" = "$(sha256sum <"$ROOT/scripts/$1")" ]
}

# Under sudo what was made belongs to the user who called it.
hand_back() {
  [ "$(id -u)" = 0 ] && [ -n "${SUDO_UID:-}" ] || return 0
  local path
  for path in .local build cantilever; do
    [ ! -e "$ROOT/$path" ] || chown -R "$SUDO_UID:${SUDO_GID:-$SUDO_UID}" "$ROOT/$path"
  done
}

# setup LIST PACKAGE...: everything above.
setup() {
  local list=$1
  shift
  trap hand_back EXIT
  setup_packages "$@"
  setup_python "$list"
  setup_maths
}

# The line in which the build files say what is missing, or else the second argument.
refusal() {
  sed -n "s/^ *\(vk_rund can't be built: \)/\1/p" "$1" | grep . || printf '%s' "$2"
}

# build PRESET TARGET...: configures and builds into build/PRESET, without the tests if the target is
# the program alone.
build() {
  local preset=$1 options=()
  shift
  case $preset in
    *-open | *-mkl | package) ;;
    *) options=("-DVK_MATH=$VK_MATH") ;;
  esac
  [ "$*" != vk_rund ] || options+=(-DVK_TESTS=OFF -DVK_BENCH=OFF)
  say "Building build/$preset"
  (cd "$ROOT" && quietly "configure-$preset" cmake --preset "$preset" "${options[@]}") ||
    fail "$(refusal "$LOGS/configure-$preset.log" "CMake could not configure the preset $preset")"
  grep -h '^-- Maths library' "$LOGS/configure-$preset.log" | sed 's/^-- /  /'
  (cd "$ROOT" && quietly "build-$preset" cmake --build "build/$preset" -j "$JOBS" ${1:+--target "$@"}) ||
    fail "the preset $preset does not build"
}
