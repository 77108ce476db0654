#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need
# (only those that are missing) and configures + builds one tree.
#   scripts/setup.sh [BUILD_DIR] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(build-essential cmake protobuf-compiler libprotobuf-dev libgtest-dev libgmock-dev
          libbenchmark-dev libcli11-dev pkg-config python3
          pybind11-dev python3-dev python3-numpy python3-protobuf python3-pytest python3-setuptools python3-pip python3-venv)
# oneDNN is optional: the benchmarks compare against it when it is there;
# clang and its runtime (libFuzzer) are for the fuzz targets (scripts/fuzz.sh).
optional=(libdnnl-dev clang libclang-rt-14-dev)

missing=()
for p in "${packages[@]}" "${optional[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  for p in "${missing[@]}"; do
    if ! DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "$p" >/dev/null; then
      case " ${optional[*]} " in
        *" $p "*) echo "Optional package $p is not available; going on without it." ;;
        *) echo "Could not install $p" >&2; exit 1 ;;
      esac
    fi
  done
fi

if [ $# -gt 0 ]; then
  build_dir=$1
  shift
  launcher=()
  command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # The Python package is built for the interpreter the packages above went
  # into, whichever python3 comes first on the PATH.
  cmake -S . -B "$build_dir" "${launcher[@]}" -DPython_EXECUTABLE=/usr/bin/python3 "$@"
  cmake --build "$build_dir" -j"$(nproc)"
fi
