// The EtherNet/IP client on its own against plc-sim over loopback: session
// registration, the close-then-open of the class-3 connection, and connected
// exchanges with their sequence count.
#include <array>

#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "engine/read_codec.h"
#include "engine/resolve_codec.h"
#include "engine/write_codec.h"
#include "tests/integration/fixture.h"
#include "util/wire.h"

namespace plc::itest {
namespace {

constexpr uint32_t kToConnId = 0x9D9D0029;
constexpr int32_t kReplyTimeoutUs = 10000000;

class EipClient : public DriverFixture {
protected:
    std::unique_ptr<EipSession> OpenRegistered() {
        auto s = _OpenSession("127.0.0.1", 44818, 1024, kReplyTimeoutUs);
        EXPECT_TRUE(s);
        if (s) {
            EXPECT_EQ(RegisterSession(*s), 0);
        }
        return s;
    }
    std::unique_ptr<CipConnection> Connect(EipSession &s, uint16_t serial) {
        return _ConnectPLCOverCNET(s, 0, _Priority, _TimeOut_Ticks, kToConnId, serial,
                                   _OriginatorVendorID, _OriginatorSerialNumber, _TimeOutMultiplier,
                                   7236, _Transport, nullptr, 0);
    }
};

// The two buffers of connected exchanges, and the request area inside them.
struct Buffers {
    std::vector<uint8_t> send = std::vector<uint8_t>(kConnectedReceiveSize);
    std::vector<uint8_t> recv = std::vector<uint8_t>(kConnectedReceiveSize);
    ConnectedBuffers view() { return {{send.data(), send.size()}, {recv.data(), recv.size()}}; }
    wire::Writer request() {
        return wire::Writer(send.data() + kConnectedRequestHeadroom,
                            send.size() - kConnectedRequestHeadroom);
    }
};

TEST_F(EipClient, RegistersAndUnregistersASession) {
    StartSim();
    auto s = OpenRegistered();
    ASSERT_TRUE(s);
    EXPECT_NE(s->handle, 0u);
    EXPECT_EQ(sim.Stat("sessions_registered"), 1u);
    EXPECT_EQ(sim.Stat("sessions_open"), 1u);
    EXPECT_GT(UnRegisterSession(*s), 0);
    CloseSession(std::move(s));
    EXPECT_EQ(sim.Stat("sessions_open"), 0u);
    EXPECT_EQ(sim.Stat("errors"), 0u) << sim.Output();
}

TEST_F(EipClient, NoListenerMeansNoSession) {
    EXPECT_FALSE(_OpenSession("127.0.0.1", 44818, 1024, kReplyTimeoutUs));
}

TEST_F(EipClient, ConnectsByClosingThenOpeningTheSameTriple) {
    StartSim();
    auto s = OpenRegistered();
    ASSERT_TRUE(s);
    auto first = Connect(*s, 0x1234);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->sequence, 0u);
    EXPECT_EQ(first->write_mode, 0u);
    EXPECT_NE(first->ot_conn_id, 0u);
    EXPECT_EQ(first->conn_serial, 0x1234u);
    EXPECT_EQ(sim.Stat("forward_close"), 1u);
    EXPECT_EQ(sim.Stat("forward_open"), 1u);
    EXPECT_EQ(sim.Stat("connections_open"), 1u);

    // A second connect under the same triple first closes the open one.
    auto second = Connect(*s, 0x1234);
    ASSERT_TRUE(second);
    EXPECT_EQ(sim.Stat("forward_close"), 2u);
    EXPECT_EQ(sim.Stat("connections_open"), 1u) << "the earlier connection was not closed";
    first.reset(); // already gone on the controller

    EXPECT_EQ(Forward_Close(std::move(second)), 0);
    EXPECT_EQ(sim.Stat("connections_open"), 0u);
    // Closing it again names a connection the controller no longer has.
    auto stale = std::make_unique<CipConnection>();
    stale->eip_session = s.get();
    stale->conn_serial = 0x1234;
    stale->vendor_id = _OriginatorVendorID;
    stale->orig_serial = _OriginatorSerialNumber;
    stale->path = {0x01, 0x00, 0x20, 0x02, 0x24, 0x01};
    stale->path_len = 6;
    EXPECT_EQ(Forward_Close(std::move(stale)), 0x01);
}

TEST_F(EipClient, ConnectedExchangesCountTheirSequence) {
    StartSim({"Counter=0x01020304"});
    auto s = OpenRegistered();
    ASSERT_TRUE(s);
    auto c = Connect(*s, 0x0042);
    ASSERT_TRUE(c);
    Buffers b;
    wire::Bytes reply;

    const std::string_view name = "Counter";
    wire::Writer resolve = b.request();
    ASSERT_TRUE(build_resolve_request(resolve, &name, 1));
    ASSERT_EQ(CIP_TransRecv(*s, *c, b.view(), resolve.size(), 0x56, &reply), 0);
    RequestPrefix prefix{};
    VarHandle handle{};
    ASSERT_EQ(parse_resolve_reply(reply, 1, prefix, &handle, nullptr), ReplyCheck::Ok);
    EXPECT_EQ(c->sequence, 1u);

    // Read the whole DINT by the handle.
    ReadItem item;
    item.handle = handle;
    item.bit_length = 32;
    wire::Writer read = b.request();
    ASSERT_TRUE(build_read_request(read, prefix, &item, 1));
    const size_t read_len = read.size();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CIP_TransRecv(*s, *c, b.view(), read_len, 0x55, &reply), 0);
        wire::Bytes values;
        ASSERT_EQ(parse_read_reply(reply, 1, 4, values), ReplyCheck::Ok);
        EXPECT_EQ(std::vector<uint8_t>(values.data, values.data + 4), Le32(0x01020304));
    }
    EXPECT_EQ(c->sequence, 4u);

    // The write goes to class 0xB8 while write_mode is set.
    PlcData data{1, nullptr};
    uint8_t value[4] = {0x0D, 0x0C, 0x0B, 0x0A};
    data.buffer = value;
    TagEntry dint{};
    dint.bits = 32;
    dint.type_code = 0xC4;
    WriteValue encoded;
    ASSERT_EQ(encode_write_value(dint, 0, data, encoded), Status::Ok);
    wire::Writer write = b.request();
    ASSERT_TRUE(build_write_request(write, prefix, handle, encoded));
    c->write_mode = 1;
    ASSERT_EQ(CIP_TransRecv(*s, *c, b.view(), write.size(), 0x56, &reply), 0);
    c->write_mode = 0;
    EXPECT_EQ(parse_write_reply(reply), ReplyCheck::Ok);
    EXPECT_EQ(sim.Values("Counter")->at(0), std::to_string(0x0A0B0C0D));

    EXPECT_EQ(sim.Stat("resolve_requests"), 1u);
    EXPECT_EQ(sim.Stat("read_requests"), 3u);
    EXPECT_EQ(sim.Stat("write_requests"), 1u);
    EXPECT_EQ(sim.Stat("sequence_anomalies"), 0u)
        << "counts must run 0, 1, 2, ... on a new connection";

    // The count wraps from 0xFFFF to 0, and advances even when nothing comes back.
    c->sequence = 0xFFFF;
    wire::Writer again = b.request();
    ASSERT_TRUE(build_read_request(again, prefix, &item, 1));
    EXPECT_EQ(CIP_TransRecv(*s, *c, b.view(), read_len, 0x55, &reply), 0);
    EXPECT_EQ(c->sequence, 0u);
    sim.Kill();
    EXPECT_EQ(CIP_TransRecv(*s, *c, b.view(), read_len, 0x55, &reply), -1);
    EXPECT_EQ(c->sequence, 1u);
}

} // namespace
} // namespace plc::itest
