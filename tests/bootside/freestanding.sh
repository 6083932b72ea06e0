#!/usr/bin/env bash
# Compiles the boot side for bare metal out of the two folders that a port copies, as C++17 and with
# warnings as errors. Shows that it asks its port for nothing but the functions that the porting
# guide names, and keeps no state of its own.
#   freestanding.sh ROOT OUTPUT_FOLDER
set -euo pipefail
root=$1
out=$2
rm -rf "$out"
mkdir -p "$out"
cd "$root"
cp -R --parents bootside chain/format "$out"
cd "$out"

# kit NAMES OPTION...: compiles it. It has no variables, and leaves nothing undefined but NAMES.
kit() {
    clang++ "${@:2}" -std=c++17 -ffreestanding -fno-exceptions -fno-rtti -mstrict-align \
        -Wall -Wextra -Wpedantic -Werror -I. -c bootside/*.cpp
    ld.lld -r -o kit ./*.o
    llvm-nm --format=posix kit >symbols
    if grep -E ' [BbCcDdU]( |$)' symbols | grep -vE "^($1) U"; then
        echo "$*: the variables and undefined symbols (U) above should not be in the kit" >&2
        exit 1
    fi
}

memory='memcpy|memset|memmove|memcmp'
arm64=(--target=aarch64-none-elf -mgeneral-regs-only)
kit "$memory" "${arm64[@]}" -Os
kit "$memory|__stack_chk_(fail|guard)" "${arm64[@]}" -O2 -fstack-protector-all
kit "$memory|__aeabi_(uldivmod|uidiv(mod)?|mem(cpy|set|clr|move)[48]?)" \
    --target=armv7a-none-eabi -mfloat-abi=soft -O2
