// Sanitizer defaults for the fuzz programs (ASAN_OPTIONS still overrides
// them).  The default quarantine of 256 MB hands every allocation fresh
// pages, and first touches of pages are what a run then spends its time on;
// 16 MB still holds back the frees of many inputs, so a use after free
// within one input is caught as before.
extern "C" const char *__asan_default_options() { return "quarantine_size_mb=16"; }
