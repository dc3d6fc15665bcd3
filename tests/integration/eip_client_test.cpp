// The EtherNet/IP client on its own against plc-sim over loopback: session
// registration, the close-then-open of the class-3 connection, and connected
// exchanges with their sequence count.
#include <array>

#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "eip/wire.h"
#include "tests/integration/fixture.h"

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
        return _ConnectPLCOverCNET(s, 0, _Priority, _TimeOut_Ticks, kToConnId, serial, _OriginatorVendorID,
                                   _OriginatorSerialNumber, _TimeOutMultiplier, 7236, _Transport, nullptr, 0);
    }
};

// The resolve request of one name: fixed header, one "VAR://" path item.
std::vector<uint8_t> ResolveRequest(const std::string &name) {
    const std::string path = "VAR://" + name;
    const size_t padded = path.size() + (path.size() & 1u);
    std::vector<uint8_t> buf(16 + padded);
    wire::Writer w(buf.data(), buf.size());
    w.u16(0).u16(0x3FFF).u32(0).u16(1).u16(uint16_t(padded + 4)).u16(0x0092).u16(uint16_t(path.size()));
    w.text(path).pad_even();
    EXPECT_TRUE(w.ok());
    return buf;
}

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
    first.reset();  // already gone on the controller

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

    std::vector<uint8_t> reply(kMaxMrReply);
    uint32_t reply_len = 0;
    const auto resolve = ResolveRequest("Counter");
    ASSERT_EQ(CIP_TransRecv(s.get(), c.get(), resolve.data(), uint32_t(resolve.size()), reply.data(), &reply_len,
                            0x56),
              0);
    ASSERT_GE(reply_len, 26u);
    EXPECT_EQ(reply[0], 0xD6);
    EXPECT_EQ(reply[2], 0x00) << "general status";
    EXPECT_EQ(c->sequence, 1u);

    // Read the whole DINT by the handle: prefix, 1 item, handle, offset, length.
    std::array<uint8_t, 30> read{};
    wire::Writer w(read.data(), read.size());
    w.bytes(&reply[6], 10).u8(1).u8(0).bytes(&reply[16], 10).u32(0).u32(32);
    ASSERT_TRUE(w.ok());
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CIP_TransRecv(s.get(), c.get(), read.data(), uint32_t(read.size()), reply.data(), &reply_len,
                                0x55),
                  0);
        ASSERT_EQ(reply_len, 14u);
        EXPECT_EQ(reply[0], 0xD5);
        EXPECT_EQ(reply[4], 1) << "items answered";
        EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 10, reply.begin() + 14), Le32(0x01020304));
    }
    EXPECT_EQ(c->sequence, 4u);

    // The write goes to class 0xB8 while write_mode is set.
    std::array<uint8_t, 36> write{};
    wire::Writer ww(write.data(), write.size());
    ww.bytes(read.data(), 10).u8(1).u8(0).u8(4).u8(0).bytes(&read[12], 10).u32(0).u32(32).u32(0x0A0B0C0D);
    ASSERT_TRUE(ww.ok());
    c->write_mode = 1;
    ASSERT_EQ(CIP_TransRecv(s.get(), c.get(), write.data(), uint32_t(write.size()), reply.data(), &reply_len, 0x56),
              0);
    c->write_mode = 0;
    EXPECT_EQ(reply[0], 0xD6);
    EXPECT_EQ(reply[2], 0x00) << "general status of the write";
    EXPECT_EQ(sim.Values("Counter")->at(0), std::to_string(0x0A0B0C0D));

    EXPECT_EQ(sim.Stat("resolve_requests"), 1u);
    EXPECT_EQ(sim.Stat("read_requests"), 3u);
    EXPECT_EQ(sim.Stat("write_requests"), 1u);
    EXPECT_EQ(sim.Stat("sequence_anomalies"), 0u) << "counts must run 0, 1, 2, ... on a new connection";

    // The count wraps from 0xFFFF to 0, and advances even when nothing comes back.
    c->sequence = 0xFFFF;
    EXPECT_EQ(CIP_TransRecv(s.get(), c.get(), read.data(), uint32_t(read.size()), reply.data(), &reply_len, 0x55),
              0);
    EXPECT_EQ(c->sequence, 0u);
    sim.Kill();
    EXPECT_EQ(CIP_TransRecv(s.get(), c.get(), read.data(), uint32_t(read.size()), reply.data(), &reply_len, 0x55),
              -1);
    EXPECT_EQ(c->sequence, 1u);
}

} // namespace
} // namespace plc::itest
