// Export macro of libSystemWrappers: the library builds with hidden visibility,
// so only what carries SW_EXPORT is part of its binary interface.
#ifndef SYSTEM_WRAPPERS_SW_EXPORT_H_
#define SYSTEM_WRAPPERS_SW_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define SW_EXPORT __attribute__((visibility("default")))
#else
#define SW_EXPORT
#endif

#endif  // SYSTEM_WRAPPERS_SW_EXPORT_H_
