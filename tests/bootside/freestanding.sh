#!/usr/bin/env bash
# Shows that the boot side builds for bare metal and asks its port for nothing but four memory
# functions, that it keeps no state of its own, and that its header and the example of
# docs/porting.md are C11.
#   freestanding.sh ROOT OUTPUT_FOLDER
set -euo pipefail
root=$1
out=$2
mkdir -p "$out"
bare=(--target=aarch64-none-elf -ffreestanding -mgeneral-regs-only -mstrict-align -O2
    -Wall -Wextra -Wpedantic -Werror "-I$root")

rm -f "$out"/*.o
for source in "$root"/bootside/*.cpp; do
    clang++ "${bare[@]}" -std=c++17 -fno-exceptions -fno-rtti -c "$source" \
        -o "$out/$(basename "$source" .cpp).o"
done
ld.lld -r -o "$out/kit" "$out"/*.o
wanted=$(llvm-nm --undefined-only --format=just-symbols "$out/kit")
strange=$(grep -vxE 'memcpy|memset|memmove|memcmp' <<<"$wanted" || true)
state=$(llvm-nm --defined-only --format=posix "$out/kit" | awk '$2 ~ /[bBdDcC]/ { print $1 }')
if [ -n "$strange$state" ]; then
    echo "undefined symbols beyond the four: ${strange:-none}; variables: ${state:-none}" >&2
    exit 1
fi

# The example is the page's block of C.
awk '/^```/ { inside = $0 == "```c"; next }
    inside' "$root/docs/porting.md" >"$out/example.c"
test -s "$out/example.c"
clang "${bare[@]}" -std=c11 -c "$out/example.c" -o "$out/example"
