/*
 * Export and linkage macros shared by the public headers of libplc_driver.
 * Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_API_H
#define PLC_DRIVER_API_H

#if defined(__GNUC__)
#define PLC_API __attribute__((visibility("default")))
#define PLC_NORETURN __attribute__((noreturn))
#define PLC_PRINTF(format_index, first_arg) \
    __attribute__((format(printf, format_index, first_arg)))
#else
#define PLC_API
#define PLC_NORETURN
#define PLC_PRINTF(format_index, first_arg)
#endif

#ifdef __cplusplus
#define PLC_BEGIN_DECLS extern "C" {
#define PLC_END_DECLS }
#else
#define PLC_BEGIN_DECLS
#define PLC_END_DECLS
#endif

#endif /* PLC_DRIVER_API_H */
