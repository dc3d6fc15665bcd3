// eip-exchange: one conversation with a controller through the driver's own
// EtherNet/IP client, step by step, printing what each step got back.
//
// It makes the calls the driver's bring-up makes (session, registration,
// Large_Forward_Open with the driver's fixed connection settings), resolves
// variables by name, reads them by handle, and then takes everything down again
// in order (Forward_Close, UnRegisterSession, close). Useful against the
// simulator, for capturing a reference conversation, and for checking a real
// controller from a workstation.
//
//   eip-exchange [--host A] [--port N] [--serial N] [--bits N] [--reads N] [--pause-ms N]
//                [VARIABLE...]
//
// Exit status: 0 when every step succeeded, 1 when a step failed, 2 for bad usage.

#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "eip/cip.h"
#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "engine/element_rules.h"
#include "engine/read_codec.h"
#include "engine/resolve_codec.h"
#include "util/wire.h"

namespace {

using plc::wire::Reader;
using plc::wire::Writer;

constexpr uint16_t kDefaultPort = 44818;
constexpr int kSessionBufferSize = 1024;
constexpr int32_t kReplyTimeoutUs = 10000000;
constexpr uint32_t kToConnectionId = 0x9D9D0029;
constexpr uint32_t kRpi = 7236;

constexpr size_t kBufferSize = plc::kConnectedReceiveSize;

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = kDefaultPort;
    long serial = -1;      // -1: draw one
    uint32_t bits = 32;    // element width of the variables read
    int reads = 2;         // reads by handle per variable
    unsigned pause_ms = 0; // between two reads, to watch a value change
    std::vector<std::string> variables;
};

struct Resolved {
    std::string name;
    plc::RequestPrefix prefix{};
    plc::VarHandle handle{};
};

// The two buffers of connected exchanges: requests are built in place behind
// the room the connection's framing needs, replies are found in place.
struct Buffers {
    std::vector<uint8_t> send = std::vector<uint8_t>(kBufferSize);
    std::vector<uint8_t> recv = std::vector<uint8_t>(kBufferSize);
    plc::ConnectedBuffers view() {
        return {{send.data(), send.size()}, {recv.data(), recv.size()}};
    }
    Writer request() {
        return Writer(send.data() + plc::kConnectedRequestHeadroom,
                      send.size() - plc::kConnectedRequestHeadroom);
    }
};

void usage(const char *argv0) {
    std::fprintf(stderr,
                 "usage: %s [--host ADDRESS] [--port N] [--serial N] [--bits N] [--reads N] "
                 "[--pause-ms N] [VARIABLE...]\n"
                 "  defaults: --host 127.0.0.1 --port 44818 --bits 32 --reads 2 --pause-ms 0 "
                 "LiveCounter\n",
                 argv0);
}

bool parse_number(const char *text, unsigned long max, unsigned long &out) {
    char *end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

bool parse_options(int argc, char **argv, Options &opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool has_value = i + 1 < argc;
        unsigned long v = 0;
        if (arg == "--help" || arg == "-h") {
            return false;
        } else if (arg == "--host" && has_value) {
            opt.host = argv[++i];
        } else if (arg == "--port" && has_value) {
            if (!parse_number(argv[++i], 0xFFFF, v) || v == 0) return false;
            opt.port = static_cast<uint16_t>(v);
        } else if (arg == "--serial" && has_value) {
            if (!parse_number(argv[++i], 0xFFFF, v)) return false;
            opt.serial = static_cast<long>(v);
        } else if (arg == "--bits" && has_value) {
            if (!parse_number(argv[++i], 32, v) || v == 0 || (v != 1 && v % 8 != 0)) return false;
            opt.bits = static_cast<uint32_t>(v);
        } else if (arg == "--reads" && has_value) {
            if (!parse_number(argv[++i], 1000, v)) return false;
            opt.reads = static_cast<int>(v);
        } else if (arg == "--pause-ms" && has_value) {
            if (!parse_number(argv[++i], 60000, v)) return false;
            opt.pause_ms = static_cast<unsigned>(v);
        } else if (!arg.empty() && arg[0] == '-') {
            return false;
        } else {
            opt.variables.emplace_back(arg);
        }
    }
    if (opt.variables.empty()) opt.variables.emplace_back("LiveCounter");
    return true;
}

std::string hex(const uint8_t *bytes, size_t n) {
    std::string out;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", bytes[i]);
        out += b;
    }
    return out;
}

const char *outcome(plc::ReplyCheck check) {
    switch (check) {
    case plc::ReplyCheck::Ok: return "ok";
    case plc::ReplyCheck::Refused: return "refused";
    case plc::ReplyCheck::Unexpected: return "not the expected reply";
    }
    return "?";
}

// Resolves one variable by name: service 0x56 to the name-resolution class with
// a "VAR://" path. Keeps the request prefix and the handle from the reply.
bool resolve(plc::EipSession &session, plc::CipConnection &connection, const std::string &name,
             Buffers &buffers, Resolved &out) {
    const std::string_view names[1] = {name};
    Writer w = buffers.request();
    if (!plc::build_resolve_request(w, names, 1)) {
        std::printf("resolve %s: name too long for a request\n", name.c_str());
        return false;
    }
    plc::wire::Bytes reply;
    if (plc::CIP_TransRecv(session, connection, buffers.view(), w.size(),
                           plc::cip::kServiceResolveOrWrite, &reply) != 0) {
        std::printf("resolve %s: no valid reply\n", name.c_str());
        return false;
    }
    uint8_t status = 0;
    const plc::ReplyCheck check =
        plc::parse_resolve_reply(reply, 1, out.prefix, &out.handle, &status);
    std::printf("resolve %s: %zu bytes sent, %zu-byte reply, general status 0x%02X: %s\n",
                name.c_str(), w.size(), reply.size, status, outcome(check));
    if (check != plc::ReplyCheck::Ok) return false;
    out.name = name;
    std::printf("  prefix %s\n  handle %s\n", hex(out.prefix.data(), out.prefix.size()).c_str(),
                hex(out.handle.data(), out.handle.size()).c_str());
    return true;
}

// Reads one element of a resolved variable by handle (service 0x55, one item).
bool read_by_handle(plc::EipSession &session, plc::CipConnection &connection, const Resolved &var,
                    uint32_t bits, Buffers &buffers) {
    plc::ReadItem item;
    item.handle = var.handle;
    item.bit_length = bits;
    Writer w = buffers.request();
    if (!plc::build_read_request(w, var.prefix, &item, 1)) return false;
    plc::wire::Bytes reply;
    if (plc::CIP_TransRecv(session, connection, buffers.view(), w.size(),
                           plc::cip::kServiceReadByHandle, &reply) != 0) {
        std::printf("read %s: no valid reply\n", var.name.c_str());
        return false;
    }
    plc::wire::Bytes values;
    const plc::ReplyCheck check =
        plc::parse_read_reply(reply, 1, plc::item_value_bytes(bits), values);
    if (check != plc::ReplyCheck::Ok) {
        std::printf("read %s: %s\n", var.name.c_str(), outcome(check));
        return false;
    }
    Reader r(values);
    std::printf("read %s: %zu value bytes: %s", var.name.c_str(), values.size,
                hex(values.data, values.size).c_str());
    if (bits == 32) {
        const auto v = r.u32();
        std::printf(" (%" PRIu32 ", %" PRId32 " signed)", v, static_cast<int32_t>(v));
    } else if (bits == 16) {
        const auto v = r.u16();
        std::printf(" (%u, %d signed)", static_cast<unsigned>(v), static_cast<int16_t>(v));
    }
    std::printf("\n");
    return true;
}

uint16_t draw_serial() {
    std::random_device rd;
    return static_cast<uint16_t>(rd());
}

} // namespace

int main(int argc, char **argv) {
    Options opt;
    if (!parse_options(argc, argv, opt)) {
        usage(argv[0]);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    bool ok = true;

    std::printf("session: connecting to %s:%u\n", opt.host.c_str(),
                static_cast<unsigned>(opt.port));
    auto session =
        plc::_OpenSession(opt.host.c_str(), opt.port, kSessionBufferSize, kReplyTimeoutUs);
    if (!session) {
        std::printf("session: could not open\n");
        return 1;
    }
    const int32_t reg = plc::RegisterSession(*session);
    if (reg < 0) {
        std::printf("session: RegisterSession refused (%d)\n", reg);
        plc::CloseSession(std::move(session));
        return 1;
    }
    std::printf("session: registered, handle 0x%08" PRIX32 "\n", session->handle);

    const uint16_t serial = opt.serial >= 0 ? static_cast<uint16_t>(opt.serial) : draw_serial();
    auto connection =
        plc::_ConnectPLCOverCNET(*session, 0, plc::_Priority, plc::_TimeOut_Ticks, kToConnectionId,
                                 serial, plc::_OriginatorVendorID, plc::_OriginatorSerialNumber,
                                 plc::_TimeOutMultiplier, kRpi, plc::_Transport, nullptr, 0);
    if (!connection) {
        std::printf("connection: Large_Forward_Open failed (serial 0x%04X)\n", serial);
        ok = false;
    } else {
        std::printf("connection: open, serial 0x%04X, O->T id 0x%08" PRIX32 ", T->O id 0x%08" PRIX32
                    "\n",
                    connection->conn_serial, connection->ot_conn_id, connection->to_conn_id);

        Buffers buffers;
        for (const auto &name : opt.variables) {
            Resolved var;
            if (!resolve(*session, *connection, name, buffers, var)) {
                ok = false;
                continue;
            }
            for (int i = 0; i < opt.reads; ++i) {
                if (i > 0 && opt.pause_ms > 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(opt.pause_ms));
                }
                if (!read_by_handle(*session, *connection, var, opt.bits, buffers)) ok = false;
            }
        }

        const int closed = plc::Forward_Close(std::move(connection));
        std::printf("connection: Forward_Close general status %d%s\n", closed,
                    closed == 0 ? "" : " (not closed cleanly)");
        if (closed != 0) ok = false;
    }

    const long unreg = plc::UnRegisterSession(*session);
    std::printf("session: UnRegisterSession %ld\n", unreg);
    if (unreg < 0) ok = false;
    plc::CloseSession(std::move(session));
    std::printf("session: closed\n");

    std::printf("%s\n", ok ? "exchange ok" : "exchange FAILED");
    return ok ? 0 : 1;
}
