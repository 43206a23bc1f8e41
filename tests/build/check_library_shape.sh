#!/usr/bin/env bash
# Checks the built liborlo: ELF class and machine of the target, SONAME, a
# dynamic link to the engine, no exported C++ internals, and (when another
# build of the library is given) the same exported names as that one.
#   check_library_shape.sh <lib> <readelf> <nm> <ELF32|ELF64> <machine> [<reference lib>]
set -u
lib=$1 readelf=$2 nm=$3 class=$4 machine=$5 reference=${6:-}
fail=0
bad() { echo "FAIL: $*"; fail=1; }
header=$("$readelf" -h "$lib")
grep -Eq "Class:[[:space:]]+$class\$" <<<"$header" || bad "not $class: $header"
grep -Eq "Machine:[[:space:]]+.*$machine\$" <<<"$header" || bad "not for $machine"
# The device's system libraries pass floating-point values in VFP registers.
[ "$machine" != ARM ] || grep -q 'hard-float ABI' <<<"$header" || bad "not the hard-float ABI"
dynamic=$("$readelf" -d "$lib")
grep -q 'SONAME.*\[liborlo\.so\.0\]' <<<"$dynamic" || bad "SONAME is not liborlo.so.0"
grep -q 'NEEDED.*\[libravel\.so\.0\]' <<<"$dynamic" || bad "no NEEDED libravel.so.0"
# The reference may be of another machine: its own nm reads it.
exports() { "$1" -D --defined-only "$2" | awk '{print $3}' | sort; }
exported=$(exports "$nm" "$lib")
internal=$(grep -E '^_Z|^_[a-z]' <<<"$exported") && bad "internal names exported: $internal"
for name in orlo_display_new orlo_display_stop orlo_display_start colorspace_init RGB_Y_tab \
            do_shell_cmd vexshell zebshell zeb_printf zeb_getchar kbhit readch shell_printf \
            shell_getch shell_version shell_add_commands; do
  grep -qx "$name" <<<"$exported" || bad "missing export: $name"
done
if [ -f "$reference" ]; then
  differ=$(diff <(echo "$exported") <(exports nm "$reference")) ||
    bad "exports differ from $reference (< here, > there): $differ"
elif [ -n "$reference" ] && [ $fail -eq 0 ]; then
  echo "skipped: no build at $reference to compare the exports with (scripts/test.sh builds it)"
  exit 77
fi
[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
