/*
 * Utilities shared by the host framework and the driver: sleeping, seeding
 * the random generator, file access at an offset, a log file, hex dumps,
 * bit-length rounding and checksums. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_UTILITIES_H
#define PLC_DRIVER_UTILITIES_H

#include <stdint.h>

#include "plc_driver_api.h"

PLC_BEGIN_DECLS

PLC_API int wk_sleep(uint32_t microseconds);
PLC_API void wk_sleep_ms(uint32_t milliseconds);
PLC_API void wk_srand(void);
PLC_API int Read_File(const char *path, void *buffer, int32_t offset, uint32_t count);
PLC_API int Write_File(const char *path, const void *bytes, int32_t offset, uint32_t count);
PLC_API void wk_log(const char *path, const char *format, ...) PLC_PRINTF(2, 3);
PLC_API void dump_b(const uint8_t *bytes, int32_t count);
PLC_API void _dump(const char *title, const uint8_t *bytes, int32_t count);
PLC_API uint32_t bit2byte_len(uint32_t bits);
PLC_API uint32_t bit2word_len(uint32_t bits);

PLC_API int CalcFileMD5(char *path, char *digest_out);
PLC_API uint16_t crc16(const uint8_t *bytes, uint8_t count);

PLC_END_DECLS

#endif /* PLC_DRIVER_UTILITIES_H */
