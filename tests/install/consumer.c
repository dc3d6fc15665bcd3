/* Built against an installed driver only (pkg-config, find_package) by
 * scripts/check_install.sh: the installed header and library must be enough. */
#include <stdio.h>
#include <string.h>

#include "plc_driver.h"

int main(void) {
    DriverInfo info;
    if (wk_plc_driver_info(&info) != PLC_STATUS_OK || info.first != 236 || info.second != 10 ||
        strcmp(plc_status_text(PLC_STATUS_CONFIG_ERROR), "configuration or tag error") != 0) {
        puts("installed driver: unexpected answers");
        return 1;
    }
    printf("installed driver %s answers %u.%u\n", PLC_DRIVER_VERSION_STRING, info.first,
           info.second);
    return 0;
}
