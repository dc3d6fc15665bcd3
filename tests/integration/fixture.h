// The fixture most integration tests start from: a work dir holding the tests'
// tag list, a plc-sim serving it, and the driver's entry points.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "plc_driver.h"
#include "tests/integration/harness.h"
#include "tests/integration/test_tags.h"

namespace plc::itest {

inline std::string ReadWholeFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

class DriverFixture : public ::testing::Test {
protected:
    // Starts plc-sim on the tests' tag list (or `tag_list_text` when given).
    void StartSim(std::vector<std::string> sets = {}, std::vector<std::string> extra = {},
                  const std::string &tag_list_text = {}) {
        dir.Write(kTagListName,
                  tag_list_text.empty() ? ReadWholeFile(TestTagListPath()) : tag_list_text);
        SimConfig config;
        config.tag_list = kTagListName;
        config.sets = std::move(sets);
        config.extra = std::move(extra);
        std::string error;
        ASSERT_TRUE(sim.Start(config, &error)) << error;
    }
    // Settings, device port 1 and the bring-up, which must succeed. The
    // bring-up's Forward_Close of a connection that is not open is answered
    // with an error: later checks count errors from here on.
    void BringUp() {
        ASSERT_EQ(host.Start(), 0);
        errors_at_start = sim.Stat("errors");
    }
    uint64_t NewErrors() const { return sim.Stat("errors") - errors_at_start; }

    WorkDir dir;
    Sim sim{dir};
    Host host;
    uint64_t errors_at_start = 0;
};

// Bytes of a single read, and whether the driver stayed inside them.
struct ReadOutcome {
    int32_t status = -99;
    std::vector<uint8_t> bytes;
    bool stayed_inside = true;
};

constexpr uint8_t kGuard = 0xEE;

// wk_plc_read of `count` elements; `expect` is the number of bytes the host
// buffer layout gives for them. Bytes past them must stay untouched.
inline ReadOutcome ReadSingle(uint32_t tag, uint32_t element, uint32_t count, size_t expect,
                              uint16_t device = 1) {
    std::vector<uint8_t> buf(expect + 32, kGuard);
    PlcRequest r = Record(tag, element, 0, device);
    PlcData d{};
    d.count = count;
    d.buffer = buf.data();
    ReadOutcome out;
    out.status = wk_plc_read(&r, &d);
    for (size_t i = expect; i < buf.size(); ++i)
        out.stayed_inside = out.stayed_inside && buf[i] == kGuard;
    out.bytes.assign(buf.begin(), buf.begin() + long(expect));
    return out;
}

inline int32_t WriteSingle(uint32_t tag, uint32_t element, uint32_t count,
                           std::vector<uint8_t> buffer, PlcRequest *record_out = nullptr,
                           uint16_t device = 1) {
    PlcRequest r = Record(tag, element, 0, device);
    PlcData d{};
    d.count = count;
    d.buffer = buffer.data();
    const int32_t status = wk_plc_write(&r, &d);
    if (record_out) *record_out = r;
    return status;
}

// Little-endian byte images.
inline std::vector<uint8_t> Le(uint64_t v, size_t n) {
    std::vector<uint8_t> b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(v >> (8 * i));
    return b;
}
inline std::vector<uint8_t> Le16(uint16_t v) { return Le(v, 2); }
inline std::vector<uint8_t> Le32(uint32_t v) { return Le(v, 4); }
inline std::vector<uint8_t> Le64(uint64_t v) { return Le(v, 8); }
inline std::vector<uint8_t> LeFloat(float f) { return Le32(FloatBits(f)); }
inline std::vector<uint8_t> LeDouble(double d) {
    uint64_t w;
    std::memcpy(&w, &d, 8);
    return Le64(w);
}
inline std::vector<uint8_t> Cat(std::vector<uint8_t> a, const std::vector<uint8_t> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// 16-bit registers holding one byte each in their low half.
inline std::vector<uint8_t> Registers(const std::vector<uint8_t> &low, uint8_t high = 0) {
    std::vector<uint8_t> out;
    for (uint8_t b : low) {
        out.push_back(b);
        out.push_back(high);
    }
    return out;
}
inline std::vector<uint8_t> TextRegisters(const std::string &s, size_t count) {
    std::vector<uint8_t> low(count, 0);
    for (size_t i = 0; i < s.size() && i < count; ++i) low[i] = uint8_t(s[i]);
    return Registers(low);
}

} // namespace plc::itest
