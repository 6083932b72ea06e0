#!/usr/bin/env bash
# Runs the example of docs/porting.md in a boot loader in C11, linked with the archive for bare 64-bit
# Arm: it saves the memory from address 0 on, and tarnix-chain must find just that.
#   boot_loader.sh ROOT ARCHIVE TARNIX_CHAIN OUTPUT_FOLDER
set -euo pipefail
root=$1
archive=$2
tarnix_chain=$3
out=$4
mkdir -p "$out"
here=$root/tests/bootside
# The example is the page's block of C.
awk '/^```/ { inside = $0 == "```c"; next }
    inside' "$root/docs/porting.md" >"$out/example.c"
test -s "$out/example.c"
clang --target=aarch64-none-elf -ffreestanding -mgeneral-regs-only -mstrict-align -O2 -std=c11 \
    -Wall -Wextra -pedantic -Werror "-I$root" "-I$out" -c "$here/boot_loader.c" -o "$out/boot_loader.o"
ld.lld --fatal-warnings -T "$here/boot_loader.ld" "$out/boot_loader.o" "$archive" -o "$out/boot_loader"
llvm-objcopy -O binary "$out/boot_loader" "$out/flash.bin"

cd "$out"
PYTHONPATH=$root/tests/tools python3 -B -c \
    'import pathlib, chain_image; chain_image.Image(pathlib.Path("."), [*range(9, 30), *range(70, 90)])'
timeout 60 qemu-system-aarch64 -machine virt -cpu cortex-a53 -m 64 -nodefaults -display none \
    -semihosting -bios flash.bin
rm -rf pulled
"$tarnix_chain" pull --misc misc.img --data data.img pulled
cmp flash.bin pulled/flash.bin
