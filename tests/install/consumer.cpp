// The C header from C++ through find_package(plc_driver).
#include <cstdio>

#include "plc_driver.h"

int main() {
    DriverInfo info{};
    const int32_t status = wk_plc_driver_info(&info);
    std::printf("C++ consumer: %s, driver %u.%u\n", plc_status_text(status), info.first,
                info.second);
    return status == PLC_STATUS_OK && info.first == 236 ? 0 : 1;
}
