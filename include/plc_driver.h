/*
 * Public interface of libplc_driver.so, the one header a host includes: the
 * records, the status codes, the entry points and every exported helper.
 * Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_H
#define PLC_DRIVER_H

#include <stdint.h>

#include "plc_driver_api.h"
#include "plc_driver_version.h"
#include "plc_driver_records.h"
#include "plc_driver_sockets.h"
#include "plc_driver_tags.h"
#include "plc_driver_utilities.h"

PLC_BEGIN_DECLS

/* Host entry points. */
PLC_API int32_t wk_plc_driver_info(DriverInfo *info);
PLC_API int32_t wk_plc_init(DriverSettings *settings);
PLC_API int32_t wk_plc_init2(uint32_t unused1, uint32_t unused2, const uint8_t *device_port);
PLC_API int32_t wk_plc_read(PlcRequest *request, PlcData *data);
PLC_API int32_t wk_plc_write(PlcRequest *request, PlcData *data);
PLC_API int32_t wk_OMRON_plc_read(PlcRequest *requests, int32_t count);
PLC_API int32_t wk_OMRON_plc_register(void);
PLC_API PLC_NORETURN void wk_plc_slave_main(void);

/* Word device helpers (/dev/sram-mmap). */
PLC_API int32_t ReadRw(void *buffer, uint32_t word_address, uint32_t word_count);
PLC_API int32_t WriteRw(void *buffer, uint32_t word_address, uint32_t word_count);

PLC_END_DECLS

#endif /* PLC_DRIVER_H */
