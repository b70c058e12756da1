#!/usr/bin/env bash
# Mutation sampler: N one-change mutants of the driver sources, each rebuilt in
# a scratch copy under build-mutants/ and tested with the fast test labels.
#   scripts/mutants.sh [--n N] [--seed S] [--labels 'unit'] [--jobs J] [--build DIR]
#                      [--timeout SEC] [--headers] [--list]
# Installs what is missing (as root or through sudo). Not part of .ci/run (too
# slow); see tests/README.md.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"
case " $* " in
*" --list "* | *" -h "* | *" --help "*) install_missing python3 ;;
*) install_missing cmake g++ make pkg-config qtbase5-dev libgtest-dev libgmock-dev python3 ninja-build ;;
esac
exec python3 "$(dirname "${BASH_SOURCE[0]}")/mutants.py" "$@"
