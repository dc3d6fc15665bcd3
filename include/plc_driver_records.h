/*
 * The records the host exchanges with the driver, the status codes of the
 * entry points and plc_status_text. All records are little-endian and packed.
 * Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_RECORDS_H
#define PLC_DRIVER_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#include "plc_driver_api.h"

/*
 * Status codes of the host entry points (signed 32-bit).
 *
 * PLC_STATUS_OK (0): the call did what was asked.
 *
 * PLC_STATUS_COMM_FAILURE (2): communication failure. The connection was down
 *   and could not be restored (wk_plc_read, wk_OMRON_plc_read; the write
 *   reports 3 instead), an exchange failed (send error, no reply within its
 *   wait, the controller closed the connection), or the reply was not the
 *   expected one. The last case includes a controller that answers a read or
 *   a write with a non-zero CIP general status: the value was not read or not
 *   written. The driver marks the connection broken, and the next call of any
 *   request entry rebuilds it first and resolves its variables again. Calling
 *   again on the next poll is the whole recovery.
 *
 * PLC_STATUS_CONFIG_ERROR (3): configuration or tag error. Nothing was read
 *   or written, and calling again gives the same answer until the tag list,
 *   the request, the controller's program or (for the last two items) the
 *   network changes. Except where said, nothing was sent and the connection
 *   is left as it is:
 *   - the tag list file is missing, or the driver refused it (it prints why);
 *   - the tag id is not in the list; the element index, or the last element
 *     of the run, lies outside the variable; a count of 0;
 *   - the controller does not know the variable the tag list names (it
 *     answered the name with an error: the connection stays up, nothing is
 *     remembered, and the next call asks again);
 *   - a request that cannot be sent: a name or a run of values too long for
 *     one request, a TIME text that is not a number, a batch of more than 100
 *     records, a batch record whose count is 0 or reaches past the last record;
 *   - a null pointer, or a call before wk_plc_init;
 *   - from wk_plc_write also: the connection was down and could not be restored;
 *   - from wk_plc_init2: the panel has no IPv4 address on eth0 or br0, or the
 *     session or the connection could not be opened.
 *
 * PLC_STATUS_REGISTER_REFUSED (-1): from wk_plc_init2 only: the controller
 *   refused the session registration.
 *
 * After 3 or -1 from wk_plc_init2 the driver stays usable: the next read or
 * write brings the connection up again.
 */
enum {
    PLC_STATUS_OK = 0,
    PLC_STATUS_COMM_FAILURE = 2,
    PLC_STATUS_CONFIG_ERROR = 3,
    PLC_STATUS_REGISTER_REFUSED = -1
};

/* First tag id of the indexed tags; plain tag ids lie below it. */
#define PLC_INDEXED_TAG_BASE 0x40000u

#pragma pack(push, 1)

/*
 * The host's settings record, handed to wk_plc_init. The driver keeps the
 * pointer and never copies the record: it must stay alive and unchanged for as
 * long as the library is loaded.
 */
typedef struct DriverSettings {
    /* Not used by the driver. */
    uint8_t reserved[4];
    /*
     * The controller's IPv4 address as a number, first octet in the most
     * significant byte: 192.168.250.1 is 0xC0A8FA01. It also names the tag
     * list files, in upper-case hexadecimal without leading zeros
     * (PLCC0A8FA01_<device>.csv), and is read again whenever a list is named.
     */
    uint32_t ip_address;
} DriverSettings;

/*
 * One request record (20 bytes). wk_plc_read and wk_plc_write take one,
 * wk_OMRON_plc_read an array of them.
 *
 * Tag id = (tag_high << 16 when tag_high is 4 or more) | (address >> 16).
 * Element index = address & 0xFFFF.
 *
 * A tag id below PLC_INDEXED_TAG_BASE is a plain tag: the line of the tag list
 * counted from 0. A tag id from PLC_INDEXED_TAG_BASE up is an indexed tag, the
 * tag list line that declares that id.
 *
 * The element index addresses, by the variable's declaration in the tag list:
 *   - a scalar: any index (0 by convention);
 *   - a one-dimensional array: the subscript itself ([1..10] takes 1 to 10);
 *   - two and three dimensions: the position from 0, last dimension fastest;
 *   - a STRING with a declared length: the character, 0 to length - 1;
 *   - LINT, ULINT, LREAL, LWORD: 32-bit words, two per element, low word
 *     first: subscript s of a one-dimensional array is words 2s and 2s + 1, a
 *     scalar is words 0 and 1, position p of a multi-dimensional array words
 *     2p and 2p + 1.
 */
typedef struct PlcRequest {
    /* The device number: the second number of the tag list file name
     * PLC<address>_<device>.csv. A batch takes it from its first record. */
    uint16_t device;
    /* Not used. */
    uint8_t unused2;
    /* Bits 16 to 23 of the tag id when 4 or more. 1 to 3 count as 0, and the
     * driver writes 0 back into the caller's record. */
    uint8_t tag_high;
    /* Bits 31 to 16: bits 15 to 0 of the tag id. Bits 15 to 0: the element index. */
    uint32_t address;
    /*
     * wk_OMRON_plc_read (in): the number of records, from this one on, that
     * take consecutive elements of this record's variable, 1 for a record that
     * stands alone (the usual value: the driver itself folds records for
     * consecutive elements into one read). The records covered are filled
     * whatever they address. At least 1, never reaching past the last record,
     * and exactly 1 for a scalar and a BOOL array element.
     * wk_plc_write (out): the bit position, 0 to 15, of the addressed BOOL in
     * its 16-bit word (the tag list's bit number plus the element's offset),
     * stored on every write that passes the element checks.
     * wk_plc_read: not used.
     */
    uint16_t count;
    /* Not used. */
    uint8_t unused10[6];
    /*
     * wk_OMRON_plc_read (out): the record's value, by the variable's type:
     *   - BOOL: 1 or 0;
     *   - SINT, USINT, BYTE: the byte; INT, UINT, WORD: the 16-bit value (not
     *     sign-extended: the host extends INT and SINT itself);
     *   - DINT, UDINT, DWORD: the value; REAL: its IEEE 754 bits;
     *   - LINT, ULINT, LREAL, LWORD: one 32-bit word, so a 64-bit value takes
     *     two records (even element index: low word, odd: high word);
     *   - STRING with a declared length: one character per record, the record
     *     for character k at element index k; the text ends at its first zero
     *     character (the records after it read 0). For a plain tag the driver
     *     also remembers whether character 0 was zero when last read, and
     *     while it was, every character reads 0: poll a string from element 0;
     *   - TIME (a scalar): the value as text such as "1d2h3m4s5.006ms"
     *     (days, hours, minutes, seconds when not zero, then milliseconds with
     *     three decimals when there is a fraction or nothing else; 0 is
     *     "0.000ms"), two characters per record: the record at element index k
     *     holds characters 2k (low byte) and 2k + 1 (high byte), and 0 past the
     *     end of the text. Twelve records, elements 0 to 11, hold the longest
     *     text and its terminating zero;
     *   - DATE, TIME_OF_DAY, DATE_AND_TIME, STIME, STRING2: one byte per
     *     record, 0 from the first zero byte on; read these with wk_plc_read.
     * When the call does not return 0, some records may have been written.
     */
    uint32_t result;
} PlcRequest;

/*
 * The value record of wk_plc_read and wk_plc_write: 8 bytes on the 32-bit
 * panel.
 *
 * count is the number of elements from the request's element index; the
 * buffer holds them in the host's register layout:
 *
 *   Type                       count counts                 buffer per element
 *   DINT, UDINT, REAL, DWORD   elements                     4 bytes, little-endian
 *   LINT, ULINT, LREAL, LWORD  32-bit words (2 per value)   4 bytes, low word first
 *   INT, UINT, WORD            elements                     2 bytes, little-endian
 *   SINT, USINT, BYTE          elements                     2 bytes: value, 0
 *   STRING, STRING2            characters                   2 bytes: character, 0
 *   DATE, TIME_OF_DAY,         bytes (8 per value)          2 bytes: byte, 0
 *     DATE_AND_TIME, STIME
 *   BOOL                       1 (one element)              1 byte: 1 or 0
 *   TIME (write only)          1 (one element)              the whole buffer: text
 *
 * A read stores count elements (a BOOL: one byte) and nothing else; at most
 * 4096 value bytes per read (1024 32-bit elements, 2048 16-bit ones, 4096
 * bytes or characters). A write sends at most 255 value bytes in one request
 * (63 32-bit words, 127 16-bit elements, 255 bytes or characters).
 *
 * A BOOL write takes the first byte of the buffer as the new state (1 or 0)
 * and writes one element whatever count says (count must not be 0). A TIME is
 * written from decimal text in milliseconds ("1500", "0.25", with optional
 * blanks around it), zero-terminated within 64 bytes; it is kept to whole
 * microseconds. A TIME cannot be read with wk_plc_read (the call returns 2
 * after the exchange): read it as text with wk_OMRON_plc_read.
 */
typedef struct PlcData {
    uint32_t count;
    void *buffer;
} PlcData;

/*
 * The identity record filled by wk_plc_driver_info: two fixed numbers, 236 in
 * first and 10 in second, by which the panel runtime recognises a driver of
 * this kind and the form of its host interface. The driver gives them no
 * meaning of its own. They are not the library version (plc_driver_version.h
 * has that) and stay the same for every release with this SONAME.
 */
typedef struct DriverInfo {
    uint16_t first;
    uint16_t second;
} DriverInfo;

#pragma pack(pop)

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(DriverSettings) == 8, "DriverSettings layout");
static_assert(sizeof(PlcRequest) == 20, "PlcRequest layout");
static_assert(sizeof(DriverInfo) == 4, "DriverInfo layout");
static_assert(sizeof(PlcData) == 4 + sizeof(void *), "PlcData layout");
static_assert(offsetof(DriverSettings, ip_address) == 4, "DriverSettings layout");
static_assert(offsetof(PlcRequest, tag_high) == 3 && offsetof(PlcRequest, address) == 4 &&
                  offsetof(PlcRequest, count) == 8 && offsetof(PlcRequest, result) == 16,
              "PlcRequest layout");
static_assert(offsetof(PlcData, buffer) == 4, "PlcData layout");
#endif

/*
 * A status code of the entry points as text for logs: "success",
 * "communication failure", "configuration or tag error", "session
 * registration refused", or "unknown status". Defined here; the library does
 * not export it.
 */
PLC_INLINE const char *plc_status_text(int32_t status) {
    switch (status) {
    case PLC_STATUS_OK: return "success";
    case PLC_STATUS_COMM_FAILURE: return "communication failure";
    case PLC_STATUS_CONFIG_ERROR: return "configuration or tag error";
    case PLC_STATUS_REGISTER_REFUSED: return "session registration refused";
    default: return "unknown status";
    }
}

#endif /* PLC_DRIVER_RECORDS_H */
