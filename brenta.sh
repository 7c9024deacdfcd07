#!/usr/bin/env bash
# One entry point for a fresh Debian 12 machine:
#   ./brenta.sh run    installs what is missing, builds Brenta and starts it
#   ./brenta.sh test   installs what is missing, builds Brenta and runs every test
#   ./brenta.sh build  installs what is missing and builds
set -euo pipefail
cd "$(dirname "$0")"

build_dir=${BRENTA_BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)

setup_and_build() {
  ./scripts/setup.sh
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build_dir" --parallel "$jobs"
}

case "${1:-}" in
  run)
    setup_and_build
    shift
    exec "$build_dir/brenta" "$@"
    ;;
  test)
    setup_and_build
    cd "$build_dir"
    exec ctest --output-on-failure --parallel "$jobs" --timeout 600
    ;;
  build)
    setup_and_build
    ;;
  *)
    echo "usage: $0 run|test|build" >&2
    exit 2
    ;;
esac
