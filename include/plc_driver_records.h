/*
 * The records the host exchanges with the driver and the status codes of the
 * entry points. All records are little-endian and packed. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_RECORDS_H
#define PLC_DRIVER_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#include "plc_driver_api.h"

/* Status codes returned to the host. */
enum {
    PLC_STATUS_OK = 0,
    PLC_STATUS_COMM_FAILURE = 2,    /* connection down, exchange failed, unexpected reply */
    PLC_STATUS_CONFIG_ERROR = 3,    /* tag list, tag id, element index, bring-up */
    PLC_STATUS_REGISTER_REFUSED = -1 /* wk_plc_init2 only: session registration refused */
};

/* First tag id of the indexed tags; plain tag ids lie below it. */
#define PLC_INDEXED_TAG_BASE 0x40000u

#pragma pack(push, 1)

/* The host's settings record; the driver keeps a pointer and never copies it. */
typedef struct DriverSettings {
    uint8_t reserved[4];
    uint32_t ip_address; /* first octet in the most significant byte */
} DriverSettings;

/* One request record (20 bytes). */
typedef struct PlcRequest {
    uint16_t device;     /* second number of the tag list name "PLC%X_%d.csv" */
    uint8_t unused2;
    uint8_t tag_high;    /* 0..3: no high part (written back as 0); 4..255: tag id bits 16..23 */
    uint32_t address;    /* bits 31..16: tag id bits 15..0; bits 15..0: element index */
    uint16_t count;      /* batch read: count; single write: bit position written back */
    uint8_t unused10[6];
    uint32_t result;     /* batch read: the element's value */
} PlcRequest;

/* Value record of a single read or write (8 bytes on the 32-bit panel). */
typedef struct PlcData {
    uint32_t count;
    void *buffer;
} PlcData;

/* Identity record filled by wk_plc_driver_info. */
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

#endif /* PLC_DRIVER_RECORDS_H */
