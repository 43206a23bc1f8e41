#!/usr/bin/env bash
# Checks the built liborlo: SONAME, a dynamic link to the engine, and no
# exported C++ internals.
set -u
lib=$1
fail=0
readelf -d "$lib" | grep -q 'SONAME.*\[liborlo\.so\.0\]' || { echo "SONAME is not liborlo.so.0"; fail=1; }
readelf -d "$lib" | grep -q 'NEEDED.*\[libravel\.so\.0\]' || { echo "no NEEDED libravel.so.0"; fail=1; }
exported=$(nm -D --defined-only "$lib" | awk '{print $3}')
bad=$(printf '%s\n' "$exported" | grep -E '^_Z|^_[a-z]' || true)
if [ -n "$bad" ]; then echo "internal names exported:"; echo "$bad"; fail=1; fi
for name in orlo_display_new orlo_display_stop orlo_display_start colorspace_init RGB_Y_tab \
            do_shell_cmd vexshell zebshell zeb_printf zeb_getchar kbhit readch shell_printf \
            shell_getch shell_version shell_add_commands; do
  printf '%s\n' "$exported" | grep -qx "$name" || { echo "missing export: $name"; fail=1; }
done
[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
