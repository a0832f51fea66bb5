# Shared by scripts/run and scripts/test: installs what is missing and builds.
set -euo pipefail

QUAY_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
QUAY_PACKAGES=(cmake ninja-build g++ nlohmann-json3-dev libspdlog-dev libfmt-dev libgtest-dev libgmock-dev
               libbenchmark-dev lld ripgrep gdb python3 python3-nbformat acl)

quay_install_dependencies() {
  local missing=()
  for package in "${QUAY_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$package")
    fi
  done
  if [ "${#missing[@]}" -eq 0 ]; then
    return 0
  fi
  echo "installing: ${missing[*]}" >&2
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq >&2
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >&2
}

# quay_build <build dir> <build type> [extra cmake args...]
quay_build() {
  local dir="$1" type="$2"
  shift 2
  cmake -S "$QUAY_ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" "$@" >&2
  cmake --build "$dir" -j "$(nproc)" >&2
}
