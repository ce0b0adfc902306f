// Symbol visibility of the library. Everything is hidden by default; the names
// marked QV_EXPORT form the binary interface of libqvreconstruction.so.
#ifndef QVRECONSTRUCTION_EXPORT_H
#define QVRECONSTRUCTION_EXPORT_H

#if defined(_WIN32)
#define QV_EXPORT
#else
#define QV_EXPORT __attribute__((visibility("default")))
#endif

#endif  // QVRECONSTRUCTION_EXPORT_H
