#!/usr/bin/env bash
# Checks the built liborlo: ELF class and machine of the target, SONAME, a
# dynamic link to the engine, no exported C++ internals, and (when another
# build of the library is given) the same exported names as that one.
#   check_library_shape.sh <lib> <readelf> <nm> <ELF32|ELF64> <machine> [<reference lib>]
set -u
lib=$1 readelf=$2 nm=$3 class=$4 machine=$5 reference=${6:-}
fail=0
header=$("$readelf" -h "$lib")
grep -Eq "Class:[[:space:]]+$class\$" <<<"$header" || { echo "not $class:"; echo "$header"; fail=1; }
grep -Eq "Machine:[[:space:]]+.*$machine\$" <<<"$header" || { echo "not for $machine"; fail=1; }
# The device's system libraries pass floating-point values in VFP registers.
if [ "$machine" = ARM ]; then
  grep -q 'hard-float ABI' <<<"$header" || { echo "not the hard-float ABI"; fail=1; }
fi
"$readelf" -d "$lib" | grep -q 'SONAME.*\[liborlo\.so\.0\]' || { echo "SONAME is not liborlo.so.0"; fail=1; }
"$readelf" -d "$lib" | grep -q 'NEEDED.*\[libravel\.so\.0\]' || { echo "no NEEDED libravel.so.0"; fail=1; }
exports() { "$nm" -D --defined-only "$1" | awk '{print $3}' | sort; }
exported=$(exports "$lib")
bad=$(printf '%s\n' "$exported" | grep -E '^_Z|^_[a-z]' || true)
if [ -n "$bad" ]; then echo "internal names exported:"; echo "$bad"; fail=1; fi
for name in orlo_display_new orlo_display_stop orlo_display_start colorspace_init RGB_Y_tab \
            do_shell_cmd vexshell zebshell zeb_printf zeb_getchar kbhit readch shell_printf \
            shell_getch shell_version shell_add_commands; do
  printf '%s\n' "$exported" | grep -qx "$name" || { echo "missing export: $name"; fail=1; }
done
if [ -n "$reference" ]; then
  if [ -f "$reference" ]; then
    # The reference may be of another machine: its own nm reads it.
    differ=$(diff <(printf '%s\n' "$exported") <(nm -D --defined-only "$reference" | awk '{print $3}' | sort))
    [ -z "$differ" ] || { echo "exports differ from $reference (< here, > there):"; echo "$differ"; fail=1; }
  else
    missing_reference=1
  fi
fi
if [ $fail -eq 0 ] && [ -n "${missing_reference:-}" ]; then
  echo "skipped: the rest holds, but there is no build at $reference to compare the exported"
  echo "names with (bash scripts/test.sh builds it)"
  exit 77
fi
[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
