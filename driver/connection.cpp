// Connection bring-up with the persisted serial number, and the recovery that
// every request entry runs while the connection is down.
#include "driver/connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/plc_state.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "plc_driver_sockets.h"
#include "util/unique_fd.h"
#include "util/wire.h"

namespace plc {

namespace {

constexpr int kSessionBufferSize = 1024;
constexpr int32_t kSessionTimeoutUs = 10000000;
constexpr int32_t kAbandonReplyTimeoutUs = 1000000;
constexpr uint32_t kToConnectionId = 0x9D9D0029;
constexpr uint32_t kRpiArgument = 7236;
constexpr size_t kSessionFileNameSize = 32;
constexpr mode_t kSessionFileMode = 0644;

Status get_interface_IP(const char *name) {
    const UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    if (sock.get() < 0) {
        std::perror("socket");
        return Status::ConfigError;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    request.ifr_addr.sa_family = AF_INET;
    if (::ioctl(sock.get(), SIOCGIFADDR, &request) < 0) {
        std::perror("ioctl");
        return Status::ConfigError;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    std::printf("Interface: %s, IP Address: %s\n", name, text);
    const uint32_t host_order = ntohl(address.sin_addr.s_addr);
    lastTwoOctets = ((host_order >> 8) & 0xFFu) * 256u + (host_order & 0xFFu);
    std::printf("Last two octets in hex: 0x%.4x\n", lastTwoOctets);
    return Status::Ok;
}

void session_file_name(char (&name)[kSessionFileNameSize]) {
    std::snprintf(name, sizeof name, "session_%d.dat", static_cast<int>(deviceport));
}

// The Forward_Close of a connection that is being given up: the connection
// goes whatever the controller answers, and one that stopped answering would
// otherwise hold the host for a whole reply time-out before the rebuild even
// starts. The request is the same; only the wait for its answer is shorter
// (a controller that answers does so within milliseconds), and none at all
// when the controller already let a request's whole time-out pass: a call
// that rebuilds then waits for no more than the new session's registration.
void close_abandoned_connection() {
    if (!connection) return;
    if (session) session->timeout_us = session->went_silent ? 0 : kAbandonReplyTimeoutUs;
    Forward_Close(std::move(connection));
    connection.reset();
}

// Closes a connection and a session that are still held, before the bring-up
// replaces them: the socket would leak otherwise, and the controller would
// keep a registered session until it noticed the silence.
void release_leftovers() {
    close_abandoned_connection();
    if (session) {
        if (session->handle != 0) UnRegisterSession(*session);
        CloseSession(std::move(session));
        session.reset();
    }
}

} // namespace

Status get_eth0_IP() { return get_interface_IP("eth0"); }

Status get_br0_IP() { return get_interface_IP("br0"); }

void save_session() {
    char name[kSessionFileNameSize];
    session_file_name(name);
    // Only a regular file is written, and opening never waits: a FIFO of that
    // name without a reader is refused at once instead of blocking the host.
    const UniqueFd fd(
        ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, kSessionFileMode));
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::printf("[PLC] open session_file fail\n at line %d\r\n", 143);
        return;
    }
    uint8_t bytes[4];
    wire::Writer(bytes, sizeof bytes).u32(serial_n);
    const bool written = ::write(fd.get(), bytes, sizeof bytes) == ssize_t{sizeof bytes};
    if (!written) {
        std::printf("save %d \n", 0);
    } else {
        std::printf("save:%s ok\n", name);
    }
}

void read_past_session() {
    char name[kSessionFileNameSize];
    session_file_name(name);
    // Read only from a regular file, opened without waiting (see save_session).
    const UniqueFd fd(::open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::printf("[PLC] open file error at line %d\r\n", 165);
        return;
    }
    uint8_t bytes[4] = {};
    const ssize_t got = ::read(fd.get(), bytes, sizeof bytes);
    // A file of one to three bytes holds no complete number: like an empty
    // file it counts as no stored number, and serial_n keeps its value (a
    // fresh one is drawn and saved by the bring-up).
    if (got < ssize_t{sizeof bytes}) {
        std::printf("[PLC] file is empty\n at line %d\r\n", 181);
        return;
    }
    serial_n = wire::Reader(bytes, sizeof bytes).u32();
    std::printf("read %s ok\n", name);
    std::printf("serial_n:%d\n", static_cast<int>(serial_n));
}

Status OMRON_EIP_INIT(uint32_t force_new_serial) {
    init = 0;
    if (get_eth0_IP() != Status::Ok && get_br0_IP() != Status::Ok) {
        std::printf("[PLC] get IP err at line %d\r\n", 625);
        return Status::ConfigError;
    }

    release_leftovers();
    session = _OpenSession(ip_buff, kControllerPort, kSessionBufferSize, kSessionTimeoutUs);
    if (!session) {
        std::printf("[PLC] OpenSession err at line %d\r\n", 630);
        return Status::ConfigError;
    }
    // A refused registration keeps the session; the next recovery closes it.
    if (RegisterSession(*session) < 0) return Status::RegisterRefused;

    if (serial_n == 0 || force_new_serial == 1) {
        serial_n = (static_cast<uint32_t>(std::rand()) + lastTwoOctets + deviceport) & 0xFFFFu;
        save_session();
    }

    const uint8_t route_prefix[1] = {0};
    connection = _ConnectPLCOverCNET(*session, 0, _Priority, _TimeOut_Ticks, kToConnectionId,
                                     static_cast<uint16_t>(serial_n & 0xFFFFu), _OriginatorVendorID,
                                     _OriginatorSerialNumber, _TimeOutMultiplier, kRpiArgument,
                                     _Transport, route_prefix, 0);
    if (!connection) {
        std::printf("[PLC] connection error at line %d\r\n", 652);
        return Status::ConfigError;
    }
    init = 1;
    ++connection_generation;
    std::printf("[PLC] init ok at line %d\r\n", 656);
    return Status::Ok;
}

Status recover_connection() {
    close_abandoned_connection();
    if (session) {
        UnRegisterSession(*session);
        wk_close_handel(session->sock);
        session.reset();
    }

    const Status status = OMRON_EIP_INIT(0);
    if (status == Status::Ok) return status;
    ++timeout_count;
    if (timeout_count > 3) {
        // The forced bring-up draws a new serial number. A session that the
        // failed attempt left open is closed first (inside the bring-up), so
        // that no socket is lost. Its result is not used: the caller's call
        // fails either way.
        OMRON_EIP_INIT(1);
        timeout_count = 0;
    }
    return status;
}

} // namespace plc
