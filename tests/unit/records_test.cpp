// The host runtime reads and writes these records by byte offset, so their
// layout must not depend on the compiler or the target's alignment rules.
#include <gtest/gtest.h>

#include <cstddef>

#include "plc_driver.h"

TEST(Records, HostRecordFieldOffsets) {
    EXPECT_EQ(offsetof(PlcRequest, device), 0u);
    EXPECT_EQ(offsetof(PlcRequest, tag_high), 3u);
    EXPECT_EQ(offsetof(PlcRequest, address), 4u);
    EXPECT_EQ(offsetof(PlcRequest, count), 8u);
    EXPECT_EQ(offsetof(PlcRequest, result), 16u);
    EXPECT_EQ(sizeof(PlcRequest), 20u);

    EXPECT_EQ(offsetof(DriverSettings, ip_address), 4u);
    EXPECT_EQ(sizeof(DriverSettings), 8u);

    EXPECT_EQ(offsetof(DriverInfo, second), 2u);

    EXPECT_EQ(offsetof(PlcData, count), 0u);
    EXPECT_EQ(offsetof(PlcData, buffer), 4u);
    if (sizeof(void *) == 4) {
        EXPECT_EQ(sizeof(PlcData), 8u);
    }
}

TEST(Records, PackedFieldsAreUsableAtOddOffsets) {
    // A request array as the host lays it out: fields must read back exactly,
    // including on targets that trap on unaligned word access.
    PlcRequest requests[2] = {};
    requests[1].address = 0x12345678u;
    requests[1].result = 0xCAFEF00Du;
    requests[1].count = 0xBEEF;
    const auto *bytes = reinterpret_cast<const unsigned char *>(requests);
    EXPECT_EQ(bytes[20 + 4], 0x78);
    EXPECT_EQ(bytes[20 + 7], 0x12);
    EXPECT_EQ(bytes[20 + 16], 0x0D);
    EXPECT_EQ(bytes[20 + 19], 0xCA);
    EXPECT_EQ(requests[1].count, 0xBEEF);
}
