/* Compiled as C89 and as C++98 (-pedantic-errors -Werror) by CTest: a host
 * on an old compiler must be able to use the public header as it is. */
#include "plc_driver.h"

/* C89 has no static_assert: a negative array size stops the compiler. */
#define CHECK(name, condition) typedef char name[(condition) ? 1 : -1]
CHECK(request_size, sizeof(PlcRequest) == 20);
CHECK(settings_size, sizeof(DriverSettings) == 8);
CHECK(info_size, sizeof(DriverInfo) == 4);
CHECK(data_size, sizeof(PlcData) == 4 + sizeof(void *));

#if !defined(PLC_DRIVER_VERSION) || PLC_DRIVER_VERSION < 10000
#error "plc_driver_version.h must give a version usable in #if"
#endif

int main(void) {
    const char *text = plc_status_text(PLC_STATUS_COMM_FAILURE);
    int32_t (*entry)(PlcRequest *, int32_t) = wk_OMRON_plc_read;
    return text[0] == 'c' && entry != 0 && PLC_DRIVER_VERSION_STRING[0] != '\0' ? 0 : 1;
}
