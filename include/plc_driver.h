/*
 * Public interface of libplc_driver.so, the one header a host includes: the
 * records, the status codes, the entry points and every exported helper.
 * Valid C89 and C++98.
 *
 * Calling order: wk_plc_driver_info (any time), wk_plc_init, wk_plc_init2,
 * then wk_plc_read, wk_plc_write and wk_OMRON_plc_read from the polling loop.
 *
 * One caller at a time. The driver keeps its state (one session, one
 * connection, the tag lists read so far, two 64 KB exchange buffers) in module
 * globals and has no locks: wk_plc_init, wk_plc_init2, wk_plc_read,
 * wk_plc_write and wk_OMRON_plc_read must not run at the same time, whether
 * on one thread or several. wk_plc_driver_info, wk_OMRON_plc_register and
 * wk_plc_slave_main touch no driver state.
 *
 * Blocking. Every call runs to completion on the caller's thread. A TCP
 * connect waits at most 30 ms, each send at most 0.5 s and each reply at most
 * 10 s. The everyday call makes one exchange (a read, a write, or a batch of up
 * to 15 read items per exchange); the first use of a variable adds its
 * resolution by name (one exchange per variable, 20 per exchange in a batch),
 * and a call that finds the connection broken first rebuilds it: it closes
 * what is left (the close of the old connection waits at most 1 s for its
 * answer), then connects, registers a session and opens the connection (up to
 * three more exchanges). Against a controller that accepts TCP connections and
 * never answers, such a call can therefore block for a 10 s wait or more
 * before it returns 2 or 3.
 *
 * Files, in the host process's working directory:
 *   - PLC<address>_<device>.csv, the tag list: the controller address of
 *     DriverSettings in upper-case hexadecimal, the device number of the
 *     request (PLC7F000001_1.csv for 127.0.0.1, device 1), a regular file.
 *     Read on first use and kept until the next wk_plc_init. A missing list is
 *     looked for on every call; a refused one is not read again until the
 *     file changes.
 *   - session_<port>.dat, four bytes: the connection serial number, reused
 *     after a restart so that the controller closes its stale connection.
 *
 * Diagnostics go to standard output; each message of the driver starts with
 * "[PLC] ".
 */
#ifndef PLC_DRIVER_H
#define PLC_DRIVER_H

#include <stdint.h>

#include "plc_driver_api.h"
#include "plc_driver_records.h"
#include "plc_driver_sockets.h"
#include "plc_driver_tags.h"
#include "plc_driver_utilities.h"
#include "plc_driver_version.h"

PLC_BEGIN_DECLS

/*
 * Stores the driver's identity numbers, 236 and 10, into *info (see
 * DriverInfo). Returns 0; 3 when info is null. Does not block.
 */
PLC_API int32_t wk_plc_driver_info(DriverInfo *info);

/*
 * Takes the host's settings: keeps the pointer (the record must outlive every
 * later call), seeds the C library's random generator (srand, which the host's
 * own rand() shares), forgets the tag lists read so far, marks every variable
 * for resolution again, and prints "[PLC] server ip = <address>". Nothing goes
 * on the wire. Returns 0; 3 when settings is null. Call it before
 * wk_plc_init2; a second call switches the tag lists and the next bring-up to
 * the address it carries.
 */
PLC_API int32_t wk_plc_init(DriverSettings *settings);

/*
 * Brings the connection up. *device_port (one byte) is the device port
 * number: it names the session file session_<port>.dat, whose serial number
 * is reused (a new one is drawn and saved when there is none). The driver then
 * learns the panel's own IPv4 address from eth0 (else br0), opens a TCP
 * connection to port 44818 of the controller, registers a session and opens
 * the class-3 connection (closing a stale one with the same serial number
 * first). The first two arguments are not used.
 *
 * Returns 0; 3 (no panel address, or the session or the connection could not
 * be opened; also when device_port is null); -1 (the controller refused the
 * registration). A failure is not final: the next read or write tries again.
 * Blocks for the connect and three exchanges, and first for the close of a
 * connection it opened before (at most 1 s for its answer).
 */
PLC_API int32_t wk_plc_init2(uint32_t unused1, uint32_t unused2, const uint8_t *device_port);

/*
 * Reads data->count elements of one variable, from the request's element
 * index, into data->buffer (layout and limits at PlcData). The tag id and the
 * run are checked against the tag list before anything is sent; a broken
 * connection is rebuilt first; the variable is resolved by name on first use.
 * Returns 0 with the buffer filled, 2 or 3 (see the status codes) with the
 * buffer untouched. Writes 0 into request->tag_high when it was 1 to 3.
 */
PLC_API int32_t wk_plc_read(PlcRequest *request, PlcData *data);

/*
 * Writes data->count elements of one variable, from the request's element
 * index, taken from data->buffer (layout and limits at PlcData; a BOOL or a
 * TIME is one element). Checks come first as in wk_plc_read, and the value is
 * checked too, so a request that cannot be sent costs no traffic. Stores the
 * bit position into request->count (see PlcRequest). Returns 0 when the
 * controller confirmed the write; 2 when it was not confirmed (the value may
 * or may not have been written if the reply was lost); 3 as for wk_plc_read,
 * and also when the connection was down and could not be restored.
 */
PLC_API int32_t wk_plc_write(PlcRequest *request, PlcData *data);

/*
 * The everyday poll: reads one value into the result field of each of
 * requests[0 .. count - 1] (0 to 100 records, all of the tag list named by the
 * first record's device). Records for consecutive elements of a variable are
 * read together, 15 read items per exchange; the variables of a set of
 * records seen for the first time (or after a reconnection) are resolved
 * first, 20 names per exchange, and the set is remembered so that the next
 * poll of the same records goes straight to the reads. Value encoding per
 * type, and the count field, at PlcRequest. Every record is checked before
 * anything is sent. Returns 0 with every result written, 2 or 3 (see the
 * status codes).
 */
PLC_API int32_t wk_OMRON_plc_read(PlcRequest *requests, int32_t count);

/* Returns 0 and does nothing else: the driver needs no registration. */
PLC_API int32_t wk_OMRON_plc_register(void);

/*
 * The host's slave-mode thread: the driver has no slave mode. Never returns;
 * prints "PLC DRIVER : slave mode not support!" over and over, 5 microseconds
 * apart. Touches no driver state, so it may run on a thread of its own.
 */
PLC_API PLC_NORETURN void wk_plc_slave_main(void);

/*
 * Word device helpers for the host's framework: transfer word_count 16-bit
 * words between buffer and /dev/sram-mmap from word word_address (byte offset
 * (word_address + 512) * 2), within the device's first 130500 words. Return
 * the bytes transferred, or -1 (device not available, range past the end,
 * null buffer). The driver itself does not use them.
 */
PLC_API int32_t ReadRw(void *buffer, uint32_t word_address, uint32_t word_count);
PLC_API int32_t WriteRw(void *buffer, uint32_t word_address, uint32_t word_count);

PLC_END_DECLS

#endif /* PLC_DRIVER_H */
