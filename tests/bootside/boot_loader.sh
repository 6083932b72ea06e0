#!/usr/bin/env bash
# Runs the example boot loader: it saves its flash, which begins at address 0, and tarnix-chain must
# find just that.
#   boot_loader.sh ROOT FLASH TARNIX_CHAIN OUTPUT_FOLDER
set -euo pipefail
root=$1
flash=$2
tarnix_chain=$3
rm -rf "$4"
mkdir -p "$4"
cd "$4"
PYTHONPATH=$root/tests/tools python3 -B -c \
    'import pathlib, chain_image; chain_image.Image(pathlib.Path("."), [*range(9, 30), *range(70, 90)])'
timeout 60 qemu-system-aarch64 -M virt -cpu cortex-a53 -nodefaults -display none -semihosting -bios "$flash"
"$tarnix_chain" pull --misc misc.img --data data.img pulled
cmp "$flash" pulled/flash.bin
