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

#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "eip/wire.h"

namespace {

using plc::wire::Reader;
using plc::wire::Writer;

constexpr uint16_t kDefaultPort = 44818;
constexpr int kSessionBufferSize = 1024;
constexpr int32_t kReplyTimeoutUs = 10000000;
constexpr uint32_t kToConnectionId = 0x9D9D0029;
constexpr uint32_t kRpi = 7236;

constexpr uint8_t kServiceResolve = 0x56;
constexpr uint8_t kServiceRead = 0x55;
constexpr uint8_t kReplyBit = 0x80;

constexpr size_t kPrefixSize = 10;
constexpr size_t kHandleSize = 10;
// The resolve request carries the path length in one byte.
constexpr size_t kMaxPathText = 255;

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = kDefaultPort;
    long serial = -1;         // -1: draw one
    uint32_t bits = 32;       // element width of the variables read
    int reads = 2;            // reads by handle per variable
    unsigned pause_ms = 0;    // between two reads, to watch a value change
    std::vector<std::string> variables;
};

struct Resolved {
    std::string name;
    std::array<uint8_t, kPrefixSize> prefix{};
    std::array<uint8_t, kHandleSize> handle{};
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

// Service, reserved byte, general status, additional status size: the four
// bytes every message-router reply starts with.
struct ReplyHeader {
    uint8_t service = 0;
    uint8_t status = 0;
    uint8_t extra_words = 0;
};

bool read_reply_header(Reader &r, ReplyHeader &h) {
    h.service = r.u8();
    r.u8();
    h.status = r.u8();
    h.extra_words = r.u8();
    return r.ok();
}

// Resolves one variable by name: service 0x56 to the name-resolution class with
// a "VAR://" path. Keeps the request prefix and the handle from the reply.
bool resolve(plc::EipSession &session, plc::CipConnection &connection, const std::string &name,
             std::vector<uint8_t> &reply, Resolved &out) {
    const std::string path = "VAR://" + name;
    if (path.size() > kMaxPathText) {
        std::printf("resolve %s: name too long (%zu bytes, at most %zu)\n", path.c_str(),
                    path.size(), kMaxPathText);
        return false;
    }
    const size_t padded = (path.size() + 1) & ~size_t{1};

    std::array<uint8_t, 16 + kMaxPathText + 1> request{};
    Writer w(request.data(), request.size());
    w.u16(0).u16(0x3FFF).u32(0).u16(1);
    w.u16(static_cast<uint16_t>(padded + 4)).u16(0x0092).u16(static_cast<uint16_t>(path.size()));
    w.text(path).pad_even();
    if (!w.ok()) {
        std::printf("resolve %s: request does not fit\n", path.c_str());
        return false;
    }

    uint32_t reply_len = 0;
    const int32_t rc = plc::CIP_TransRecv(&session, &connection, request.data(),
                                          static_cast<uint32_t>(w.size()), reply.data(),
                                          &reply_len, kServiceResolve, reply.size());
    if (rc != 0) {
        std::printf("resolve %s: no valid reply (CIP_TransRecv %d)\n", path.c_str(), rc);
        return false;
    }
    Reader r(reply.data(), reply_len);
    ReplyHeader h;
    if (!read_reply_header(r, h)) {
        std::printf("resolve %s: reply of %" PRIu32 " bytes is too short\n", path.c_str(),
                    reply_len);
        return false;
    }
    std::printf("resolve %s: %zu bytes sent, reply service 0x%02X, status 0x%02X, %" PRIu32
                " bytes\n",
                path.c_str(), w.size(), h.service, h.status, reply_len);
    if (h.service != (kServiceResolve | kReplyBit) || h.status != 0) {
        std::printf("resolve %s: refused\n", path.c_str());
        return false;
    }
    // Prefix at offset 6 and handle at 16, as the driver takes them.
    Reader body(reply.data(), reply_len);
    body.seek(6);
    body.bytes(out.prefix.data(), out.prefix.size());
    body.bytes(out.handle.data(), out.handle.size());
    if (!body.ok()) {
        std::printf("resolve %s: reply too short for a handle\n", path.c_str());
        return false;
    }
    out.name = name;
    std::printf("  prefix %s\n  handle %s\n", hex(out.prefix.data(), out.prefix.size()).c_str(),
                hex(out.handle.data(), out.handle.size()).c_str());
    return true;
}

// Reads one element of a resolved variable by handle (service 0x55, one item).
bool read_by_handle(plc::EipSession &session, plc::CipConnection &connection,
                    const Resolved &var, uint32_t bits, std::vector<uint8_t> &reply) {
    std::array<uint8_t, 30> request{};
    Writer w(request.data(), request.size());
    w.bytes(var.prefix.data(), var.prefix.size()).u8(1).u8(0);
    w.bytes(var.handle.data(), var.handle.size()).u32(0).u32(bits);
    if (!w.ok()) return false;

    uint32_t reply_len = 0;
    const int32_t rc = plc::CIP_TransRecv(&session, &connection, request.data(),
                                          static_cast<uint32_t>(w.size()), reply.data(),
                                          &reply_len, kServiceRead, reply.size());
    if (rc != 0) {
        std::printf("read %s: no valid reply (CIP_TransRecv %d)\n", var.name.c_str(), rc);
        return false;
    }
    Reader r(reply.data(), reply_len);
    ReplyHeader h;
    read_reply_header(r, h);
    const uint32_t items = r.u32();
    if (!r.ok()) {
        std::printf("read %s: reply of %" PRIu32 " bytes is too short\n", var.name.c_str(),
                    reply_len);
        return false;
    }
    if (h.service != (kServiceRead | kReplyBit) || h.status != 0 || (items & 0xFF) != 1) {
        std::printf("read %s: refused (service 0x%02X, status 0x%02X, items %" PRIu32 ")\n",
                    var.name.c_str(), h.service, h.status, items);
        return false;
    }
    r.skip(2);  // per-item word, not interpreted
    const size_t value_len = r.ok() ? r.remaining() : 0;
    std::printf("read %s: %zu value bytes: %s", var.name.c_str(), value_len,
                hex(r.here(), value_len).c_str());
    if (value_len == 4) {
        const auto v = r.u32();
        std::printf(" (%" PRIu32 ", %" PRId32 " signed)", v, static_cast<int32_t>(v));
    } else if (value_len == 2) {
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

    std::printf("session: connecting to %s:%u\n", opt.host.c_str(), static_cast<unsigned>(opt.port));
    auto session = plc::_OpenSession(opt.host.c_str(), opt.port, kSessionBufferSize, kReplyTimeoutUs);
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

    const uint16_t serial =
        opt.serial >= 0 ? static_cast<uint16_t>(opt.serial) : draw_serial();
    auto connection = plc::_ConnectPLCOverCNET(
        *session, 0, plc::_Priority, plc::_TimeOut_Ticks, kToConnectionId, serial,
        plc::_OriginatorVendorID, plc::_OriginatorSerialNumber, plc::_TimeOutMultiplier, kRpi,
        plc::_Transport, nullptr, 0);
    if (!connection) {
        std::printf("connection: Large_Forward_Open failed (serial 0x%04X)\n", serial);
        ok = false;
    } else {
        std::printf("connection: open, serial 0x%04X, O->T id 0x%08" PRIX32
                    ", T->O id 0x%08" PRIX32 "\n",
                    connection->conn_serial, connection->ot_conn_id, connection->to_conn_id);

        std::vector<uint8_t> reply(plc::kMaxMrReply);
        for (const auto &name : opt.variables) {
            Resolved var;
            if (!resolve(*session, *connection, name, reply, var)) {
                ok = false;
                continue;
            }
            for (int i = 0; i < opt.reads; ++i) {
                if (i > 0 && opt.pause_ms > 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(opt.pause_ms));
                }
                if (!read_by_handle(*session, *connection, var, opt.bits, reply)) ok = false;
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
