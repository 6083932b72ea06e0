#!/usr/bin/env bash
# Compiles the boot side for bare metal out of the two folders that a port copies, as C++17 and with
# warnings as errors. Shows that it asks its port for nothing but the functions that the porting
# guide names, and keeps no state of its own.
#   freestanding.sh ROOT OUTPUT_FOLDER
set -euo pipefail
root=$1
out=$2
rm -rf "$out"
mkdir -p "$out/chain"
cp -R "$root/bootside" "$out"
cp -R "$root/chain/format" "$out/chain"
cd "$out"

# kit NAMES OPTION...: compiles it, and compares what it leaves undefined with NAMES, an expression.
kit() {
    local names=$1 wanted strange state
    shift
    clang++ "$@" -std=c++17 -ffreestanding -fno-exceptions -fno-rtti -mstrict-align \
        -Wall -Wextra -Wpedantic -Werror -I. -c bootside/*.cpp
    ld.lld -r -o kit ./*.o
    wanted=$(llvm-nm --undefined-only --format=just-symbols kit)
    strange=$(grep -vxE "$names" <<<"$wanted" || true)
    state=$(llvm-nm --defined-only --format=posix kit | awk '$2 ~ /[bBdDcC]/ { print $1 }')
    if [ -n "$strange$state" ]; then
        echo "$*: undefined symbols beyond $names: ${strange:-none}; variables: ${state:-none}" >&2
        exit 1
    fi
}

memory='memcpy|memset|memmove|memcmp'
stack='__stack_chk_(fail|guard)'
arm64=(--target=aarch64-none-elf -mgeneral-regs-only)
arm32=(--target=armv7a-none-eabi -mfloat-abi=soft)
for level in -O2 -Os; do
    kit "$memory" "${arm64[@]}" $level
    kit "$memory|$stack" "${arm64[@]}" $level -fstack-protector-all
    kit "$memory|__aeabi_(uldivmod|uidiv(mod)?|mem(cpy|set|clr|move)[48]?)" "${arm32[@]}" $level
done
