#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Checks one model exhaustively: check_model.sh MODEL [FAULT...]. The model must keep its promise, and break
# it with each FAULT defined. Exit 77 when spin is not installed.
set -eu
command -v spin >/dev/null || { echo "spin is not installed: the model is not checked"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$1" "$work/model.pml"
shift
cd "$work"

# explore [-DFAULT]: into `result`.
explore() {
  spin "$@" -a model.pml
  cc -O2 -DSAFETY -DCOLLAPSE -DVECTORSZ=2048 -o pan pan.c
  ./pan -m1000000 >result
}
explore
cat result
grep -q 'errors: 0' result
! grep -q 'max search depth too small' result
for fault in "$@"; do
  explore "-D$fault"
  grep -q 'assertion violated' result || { echo "$fault goes unnoticed"; exit 1; }
  echo "$fault is found"
done
