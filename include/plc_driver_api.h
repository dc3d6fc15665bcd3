/*
 * Export, linkage and inline macros shared by the public headers of
 * libplc_driver. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_API_H
#define PLC_DRIVER_API_H

#if defined(__GNUC__)
#define PLC_API __attribute__((visibility("default")))
#define PLC_NORETURN __attribute__((noreturn))
#define PLC_PRINTF(format_index, first_arg) __attribute__((format(printf, format_index, first_arg)))
#else
#define PLC_API
#define PLC_NORETURN
#define PLC_PRINTF(format_index, first_arg)
#endif

/*
 * Functions defined in the headers themselves (they are not exported by the
 * library). C89 has no inline: GNU C's __inline__ keeps a host that does not
 * call them free of unused-function warnings.
 */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 199901L)
#define PLC_INLINE static inline
#elif defined(__GNUC__)
#define PLC_INLINE static __inline__
#else
#define PLC_INLINE static
#endif

#ifdef __cplusplus
#define PLC_BEGIN_DECLS extern "C" {
#define PLC_END_DECLS }
#else
#define PLC_BEGIN_DECLS
#define PLC_END_DECLS
#endif

#endif /* PLC_DRIVER_API_H */
