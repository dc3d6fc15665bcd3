// A controller behind the engine's link, for the engine's tests: it answers
// resolve requests with a handle made from the name (cut to 10 bytes) and
// reads with the bytes of `memory` at the item's bit offset, and it records
// every request. It decodes the requests with its own reading of the bytes,
// not with the engine's codecs, so that a codec fault shows.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "engine/link.h"
#include "util/wire.h"

namespace plc::test {

using Bytes = std::vector<uint8_t>;

class FakeController : public ControllerLink {
public:
    struct Request {
        CipCall call;
        Bytes data;
    };
    std::vector<Request> requests;
    std::map<std::string, Bytes> memory; // variable (or element) name -> bytes
    std::set<std::string> unknown;       // names the controller does not know
    std::function<void(CipCall, Bytes &)> tamper;
    bool unreachable = false;
    bool up = true;          // whether the connection can be brought up
    uint32_t connection = 1; // the generation: raise it for a new connection
    int ensure_calls = 0;
    int marked_down = 0;
    static constexpr uint8_t kPrefix[10] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4,
                                            0xA5, 0xA6, 0xA7, 0x00, 0xA9};

    bool ensure_up() override {
        ++ensure_calls;
        return up;
    }
    uint32_t generation() const override { return connection; }
    void mark_down() override { ++marked_down; }
    wire::MutableBytes request_area() override { return {area_.data(), area_.size()}; }
    std::optional<wire::Bytes> exchange(CipCall call, size_t request_len) override {
        requests.push_back({call, Bytes(area_.begin(), area_.begin() + request_len)});
        if (unreachable) return std::nullopt;
        const Bytes &req = requests.back().data;
        reply_ = call == CipCall::Resolve ? resolve(req)
                 : call == CipCall::Read  ? read(req)
                                          : write(req);
        if (tamper) tamper(call, reply_);
        return wire::Bytes{reply_.data(), reply_.size()};
    }

    size_t count(CipCall call) const {
        return size_t(std::count_if(requests.begin(), requests.end(),
                                    [call](const Request &r) { return r.call == call; }));
    }

private:
    Bytes resolve(const Bytes &req) {
        wire::Reader in(req);
        in.skip(8);
        const uint16_t names = in.u16();
        Bytes out(16, 0);
        out[0] = 0xD6;
        std::copy(kPrefix, kPrefix + 10, out.begin() + 6);
        out[14] = uint8_t(names);
        for (uint16_t m = 0; m < names; ++m) {
            const uint16_t padded = uint16_t(in.u16() - 4);
            in.skip(2);
            const uint16_t len = in.u16();
            std::string path(padded, '\0');
            in.bytes(path.data(), padded);
            std::string name = path.substr(6, len - 6);
            if (unknown.count(name)) return {0xD6, 0, 0x05, 0};
            Bytes item(24, 0xEE);
            name.resize(10, '\0');
            std::copy(name.begin(), name.end(), item.begin());
            out.insert(out.end(), item.begin(), item.end());
        }
        return out;
    }

    Bytes read(const Bytes &req) {
        wire::Reader in(req);
        in.skip(10);
        const uint8_t items = in.u8();
        in.skip(1);
        Bytes out = {0xD5, 0, 0, 0, items, 0, 0, 0};
        Bytes values;
        for (uint8_t k = 0; k < items; ++k) {
            std::string name(10, '\0');
            in.bytes(name.data(), 10);
            name.resize(std::min(name.find('\0'), size_t{10}));
            const uint32_t offset = in.u32();
            const uint32_t length = in.u24();
            in.skip(1);
            out.push_back(0);
            out.push_back(0);
            const Bytes &mem = memory[name];
            const size_t bytes = (length + 7) / 8;
            for (size_t b = 0; b < bytes + (bytes & 1u); ++b) {
                const size_t at = offset / 8 + b;
                values.push_back(at < mem.size() ? mem[at] : 0);
            }
        }
        out.insert(out.end(), values.begin(), values.end());
        return out;
    }

    static Bytes write(const Bytes &) { return {0xD6, 0, 0, 0}; }

    Bytes area_ = Bytes(65535);
    Bytes reply_;
};

} // namespace plc::test
