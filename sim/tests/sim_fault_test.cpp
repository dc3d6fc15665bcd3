// Faults on demand as a client meets them, their syntax and conditions, and
// the control channel that sets them on a running simulator.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "sim/control.h"
#include "sim/control_client.h"
#include "sim/server.h"
#include "sim/tests/sim_client.h"

using namespace plc::sim;
using namespace simtest;

namespace {

class SimFaults : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ServerOptions options;
        options.port = 0;
        server_ = std::make_unique<Server>(options, shared_, stats_);
        ASSERT_TRUE(server_->Start(&error)) << error;
    }
    void TearDown() override { server_->Stop(); }
    void Set(const std::string &text) {
        std::string error;
        const auto fault = ParseFault(text, &error);
        ASSERT_TRUE(fault) << error;
        server_->faults().Add(*fault);
    }

    SharedStore shared_;
    Stats stats_;
    std::unique_ptr<Server> server_;
};

// The identity object's Get_Attributes_All, unconnected: a reply with data.
const Bytes kGetAll = Mr(0x01, kIdentityPath);
constexpr size_t kGetAllData = 2 + 2 + 2 + 2 + 2 + 4 + 1 + 28; // attributes 1 to 7

} // namespace

TEST_F(SimFaults, WhatAClientReceives) {
    struct Case {
        const char *fault;
        // Checks what arrives for one Get_Attributes_All sent on a registered
        // client; `session` is its session handle.
        std::function<void(Client &, uint32_t session)> check;
    };
    const auto next_is_list_services = [](Client &c, uint32_t) {
        const auto r = c.Exchange(kListServices, 0, {});
        ASSERT_TRUE(r);
        EXPECT_EQ(r->command, kListServices);
    };
    const auto mr_of = [](Client &c) {
        const auto r = c.Receive();
        EXPECT_TRUE(r && r->body.size() >= 16);
        return r && r->body.size() >= 16 ? r->RRMr() : Bytes{};
    };
    const Case cases[] = {
        {"any:no-reply,times=1", next_is_list_services},
        {"register:no-reply",
         [&](Client &c, uint32_t) { EXPECT_EQ(mr_of(c).size(), 4 + kGetAllData); }},
        {"any:delay=20", [&](Client &c, uint32_t) { EXPECT_EQ(mr_of(c).size(), 4 + kGetAllData); }},
        {"any:close", [](Client &c, uint32_t) { EXPECT_FALSE(c.Receive()); }},
        {"any:reset", [](Client &c, uint32_t) { EXPECT_FALSE(c.Receive()); }},
        {"any:truncate=6",
         [](Client &c, uint32_t) {
             const auto r = c.Receive();
             ASSERT_TRUE(r);
             EXPECT_EQ(r->body, (Bytes{0, 0, 0, 0, 0, 0}));
         }},
        {"any:length=65535",
         [](Client &c, uint32_t) {
             const auto header = c.Raw(24);
             ASSERT_TRUE(header);
             EXPECT_EQ(*plc::wire::Reader(*header).u16_at(2), 0xFFFF);
         }},
        {"any:length=-3",
         [](Client &c, uint32_t) {
             const auto r = c.Receive();
             ASSERT_TRUE(r);
             EXPECT_EQ(r->body.size(), 16 + 4 + kGetAllData - 3);
         }},
        {"any:session", [](Client &c, uint32_t s) { EXPECT_EQ(c.Receive()->session, s + 1); }},
        {"any:service", [&](Client &c, uint32_t) { EXPECT_EQ(mr_of(c)[0], 0x80); }},
        {"any:status=0x1E:0x0001:0x0203",
         [&](Client &c, uint32_t) {
             EXPECT_EQ(mr_of(c), (Bytes{0x81, 0, 0x1E, 2, 1, 0, 3, 2}));
         }},
        {"any:status=0x0C",
         [&](Client &c, uint32_t) {
             EXPECT_EQ(mr_of(c), (Bytes{0x81, 0, 0x0C, 0}));
         }},
        {"any:fewer-bytes=3",
         [&](Client &c, uint32_t) { EXPECT_EQ(mr_of(c).size(), 4 + kGetAllData - 3); }},
        {"any:more-bytes=2",
         [&](Client &c, uint32_t) { EXPECT_EQ(mr_of(c).size(), 4 + kGetAllData + 2); }},
        {"any:garbage=10", [](Client &c, uint32_t) { EXPECT_TRUE(c.Raw(10)); }},
        {"any:huge=100000",
         [](Client &c, uint32_t) {
             const auto r = c.Receive();
             ASSERT_TRUE(r);
             EXPECT_TRUE(c.Raw(100000 - 24 - r->body.size()));
         }},
        {"any:duplicate",
         [&](Client &c, uint32_t) {
             const Bytes first = mr_of(c);
             EXPECT_EQ(mr_of(c), first);
         }},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.fault);
        Client c(server_->port());
        const uint32_t session = c.Register();
        Set(k.fault);
        const uint64_t applied = stats_.faults_applied;
        c.Send(Encap(kRRData, session, RRBody(kGetAll)));
        k.check(c, session);
        // The request met the fault (a register fault waits for a register).
        EXPECT_EQ(stats_.faults_applied - applied,
                  std::string(k.fault).rfind("register:", 0) == 0 ? 0u : 1u);
        server_->faults().Clear();
    }
}

TEST_F(SimFaults, ConnectedFieldsRefusalAndRestart) {
    shared_.store.Declare("Counter", *FindType("DINT"), {}, 0, nullptr);
    Client c(server_->port());
    c.Register();
    Set("forward-open:refuse,times=1");
    EXPECT_EQ(Status(c.RR(ForwardOpen(OpenParams{}))),
              std::make_pair(uint8_t(0x01), uint16_t(0x0113)));
    const uint32_t ot_id = c.Open();
    Set("connected:sequence,times=1");
    Set("resolve:connection-id");
    const Bytes resolve = Mr(0x56, kResolvePath, ResolveRequest({"Counter"}));
    EXPECT_EQ(c.Unit(ot_id, 0, resolve)->UnitSequence(), 1);
    EXPECT_EQ(c.Unit(ot_id, 1, resolve)->UnitConnection(), kToId + 1);
    EXPECT_EQ(stats_.resolve_requests, 2u);
    EXPECT_EQ(stats_.faults_applied, 3u);

    Set("read:restart");
    Client other(server_->port());
    other.Register();
    c.Send(Encap(kUnitData, c.session(), UnitBody(ot_id, 2, Mr(0x55, kVariablePath))));
    EXPECT_FALSE(c.Receive());
    EXPECT_FALSE(other.Exchange(kListServices, 0, {})); // every client is cut off
    EXPECT_EQ(stats_.restarts, 1u);
    EXPECT_EQ(stats_.sessions_open, 0u);
    EXPECT_EQ(stats_.connections_open, 0u);
}

TEST(SimFaultSyntax, ParsesConditionsAndRefusesWhatItCannotDo) {
    struct Case {
        const char *text;
        bool ok;
    };
    const Case cases[] = {
        {"read:no-reply", true},
        {"write:delay", true},
        {"any:length=+16", true},
        {"any:length=-4", true},
        {"connected:status=0x01:0x0107", true},
        {"forward-open:refuse", true},
        {"read:garbage=0x40,after=3,times=2,p=0.5,seed=9", true},
        {"read", false},
        {"reads:no-reply", false},
        {"read:explode", false},
        {"read:length", false},
        {"read:status=0", false},
        {"read:no-reply=3", false},
        {"read:refuse", false},
        {"read:no-reply,p=1.5", false},
        {"read:no-reply,after=-1", false},
        {"read:no-reply,when=3", false},
    };
    for (const Case &k : cases) {
        std::string error;
        EXPECT_EQ(ParseFault(k.text, &error).has_value(), k.ok) << k.text << ": " << error;
    }
}

TEST(SimFaultBook, CountsMessagesOfItsKindFromWhenItIsSet) {
    FaultBook book;
    std::string error;
    book.Add(*ParseFault("read:no-reply,after=2,times=2", &error));
    book.Add(*ParseFault("connected:duplicate,p=0.5,seed=7", &error));
    const Kinds read = Kinds().Add(Kind::Connected).Add(Kind::Read);
    const Kinds write = Kinds().Add(Kind::Connected).Add(Kind::Write);
    std::string picked;
    for (int i = 0; i < 6; ++i) {
        const auto f = book.Pick(i == 1 ? write : read);
        picked += !f ? '-' : f->action == Action::NoReply ? 'n' : 'd';
    }
    // Reads 1, 2 (and the write) pass the first fault; reads 3 and 4 take it.
    EXPECT_EQ(picked.substr(0, 3).find('n'), std::string::npos) << picked;
    EXPECT_EQ(picked.substr(3, 2), "nn") << picked;
    EXPECT_NE(picked[5], 'n') << picked;
    const auto again = [&] {
        FaultBook b;
        b.Add(*ParseFault("any:garbage,p=0.3,seed=42", &error));
        std::string s;
        for (int i = 0; i < 40; ++i) s += b.Pick(Kinds()) ? '1' : '0';
        return s;
    };
    EXPECT_EQ(again(), again()); // the same seed, the same choices
    EXPECT_NE(again().find('1'), std::string::npos);
    EXPECT_NE(again().find('0'), std::string::npos);
}

TEST_F(SimFaults, ControlChannelSetsListsAndClearsFaults) {
    const std::string path = ::testing::TempDir() + "sim_control.sock";
    ControlChannel control(
        path, [&](const std::string &line) { return RunControlCommand(*server_, stats_, line); });
    std::string error;
    ASSERT_TRUE(control.Start(&error)) << error;
    namespace ctl = plc::sim::control;
    EXPECT_TRUE(ctl::SetFault(path, "any:no-reply,times=1"));
    EXPECT_FALSE(ctl::SetFault(path, "any:nonsense"));
    EXPECT_EQ(ctl::Send(path, "bogus"), "error: unknown command: bogus\n");
    Client c(server_->port());
    c.Send(Encap(kListServices, 0, {}));
    EXPECT_EQ(c.Exchange(kListInterfaces, 0, {})->command, kListInterfaces);
    EXPECT_EQ(ctl::Send(path, "faults"), "ok\nany:no-reply,times=1 seen=2 applied=1\n");
    EXPECT_EQ(ctl::Counters(path)["faults_applied"], 1u);
    EXPECT_TRUE(ctl::ClearFaults(path, "any"));
    EXPECT_EQ(ctl::Send(path, "faults"), "ok\n");
    EXPECT_FALSE(ctl::ClearFaults(path, "anything"));
    EXPECT_TRUE(ctl::Restart(path));
    EXPECT_EQ(ctl::Counters(path)["restarts"], 1u);
}
