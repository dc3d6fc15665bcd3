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

/* Sleeps the given microseconds (usleep); returns usleep's result. */
PLC_API int wk_sleep(uint32_t microseconds);
/* Sleeps the given milliseconds, at most one second per call; 0 returns at once. */
PLC_API void wk_sleep_ms(uint32_t milliseconds);
/* Seeds the C library's random generator (srand) from the time of day. */
PLC_API void wk_srand(void);

/*
 * Read count bytes into buffer from, or write count bytes to, the file at the
 * byte offset, with one read or write. A missing file is created (mode 0644)
 * and reads as empty; a write changes only the bytes it writes. Return the
 * bytes read or written, or -1.
 */
PLC_API int Read_File(const char *path, void *buffer, int32_t offset, uint32_t count);
PLC_API int Write_File(const char *path, const void *bytes, int32_t offset, uint32_t count);

/* Appends the formatted text (at most 255 characters, no line end added) to
 * the file; a file that cannot be opened is skipped silently. */
PLC_API void wk_log(const char *path, const char *format, ...) PLC_PRINTF(2, 3);

/* Print count bytes to standard output after a heading ("[dump_b] len=N",
 * "[title]\tlen=N"), ten "0xNN " to a line. */
PLC_API void dump_b(const uint8_t *bytes, int32_t count);
PLC_API void _dump(const char *title, const uint8_t *bytes, int32_t count);

/* Bytes, and 16-bit words, needed for the given number of bits (rounded up). */
PLC_API uint32_t bit2byte_len(uint32_t bits);
PLC_API uint32_t bit2word_len(uint32_t bits);

/*
 * Writes the MD5 digest of the file as 32 lower-case hexadecimal characters
 * and a terminator into digest_out (at least 33 bytes). A path in double
 * quotes loses them, in place; the path "exit" ends the process with status
 * 0. Returns 1, or 0 when the file cannot be opened or is 2 GB or larger.
 * Keeps its state in module globals: one digest at a time.
 */
PLC_API int CalcFileMD5(char *path, char *digest_out);

/*
 * The Modbus RTU CRC-16 of count bytes with its two bytes exchanged: the
 * high byte of the result is the byte a frame sends first ("123456789" gives
 * 0x374B). A count of 0 gives 0xFFFF.
 */
PLC_API uint16_t crc16(const uint8_t *bytes, uint8_t count);

PLC_END_DECLS

#endif /* PLC_DRIVER_UTILITIES_H */
