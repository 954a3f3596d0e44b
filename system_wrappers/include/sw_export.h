/// @file
/// The export macro of libSystemWrappers. The library builds with hidden
/// visibility, so only what carries SW_EXPORT is part of its binary interface.
#ifndef SYSTEM_WRAPPERS_SW_EXPORT_H_
#define SYSTEM_WRAPPERS_SW_EXPORT_H_

/// @def SW_EXPORT
/// Marks a class, function or global as exported from the shared library:
/// default visibility with GCC and Clang, nothing with other compilers. Only
/// the library's own headers need it; users never write it.
#if defined(__GNUC__) || defined(__clang__)
#define SW_EXPORT __attribute__((visibility("default")))
#else
#define SW_EXPORT
#endif

#endif  // SYSTEM_WRAPPERS_SW_EXPORT_H_
