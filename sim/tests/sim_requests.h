// Request data of the variable services, built independently of the simulator
// code so that tests state the byte layouts themselves.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/wire.h"

namespace simtest {

using Bytes = std::vector<uint8_t>;
using Handle = std::array<uint8_t, 10>;

inline Bytes ResolveRequest(const std::vector<std::string> &names) {
    plc::wire::VecWriter w;
    w.u16(0).u16(0x3FFF).u32(0).u8(uint8_t(names.size())).u8(0);
    for (const std::string &name : names) {
        const std::string text = "VAR://" + name;
        const size_t padded = text.size() + (text.size() & 1);
        w.u16(uint16_t(padded + 4)).u16(0x0092).u16(uint16_t(text.size())).text(text).pad_even();
    }
    return w.take();
}

inline Bytes Prefix(uint32_t token, uint8_t names = 1) {
    plc::wire::VecWriter w;
    w.u32(token).u32(0).u8(names).u8(0);
    return w.take();
}

struct ReadItem {
    Handle handle;
    uint32_t offset;
    uint32_t length;
};

// Batch form: 18-byte items with a 24-bit length.
inline Bytes ReadRequest(uint32_t token, const std::vector<ReadItem> &items) {
    plc::wire::VecWriter w;
    const Bytes prefix = Prefix(token);
    w.bytes(prefix.data(), prefix.size()).u8(uint8_t(items.size())).u8(0);
    for (const ReadItem &item : items) {
        w.bytes(item.handle.data(), item.handle.size()).u32(item.offset);
        w.u16(uint16_t(item.length)).u8(uint8_t(item.length >> 16)).u8(0);
    }
    return w.take();
}

inline Bytes WriteRequest(uint32_t token, uint8_t length_byte, const Handle &handle,
                          uint32_t offset, uint32_t size, const Bytes &value) {
    plc::wire::VecWriter w;
    const Bytes prefix = Prefix(token);
    w.bytes(prefix.data(), prefix.size()).u8(1).u8(0).u8(length_byte).u8(0);
    w.bytes(handle.data(), handle.size()).u32(offset).u32(size).bytes(value.data(), value.size());
    return w.take();
}

} // namespace simtest
