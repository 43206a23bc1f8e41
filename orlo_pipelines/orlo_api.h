/* Export marker for the names that liborlo.so.0 gives to applications;
 * everything else in the library stays hidden. */
#ifndef ORLO_API_H
#define ORLO_API_H

#if defined(__GNUC__)
#define ORLO_API __attribute__((visibility("default")))
#else
#define ORLO_API
#endif

#endif /* ORLO_API_H */
