// Encapsulation session: the TCP connection to the controller and its
// registration (RegisterSession / UnRegisterSession), plus the client's two
// diagnostic helpers.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <netinet/in.h>

#include "eip/eip_transport.h"
#include "eip/encap.h"

namespace plc {

struct EipSession {
    int32_t sock = -1;
    uint32_t handle = 0;
    std::array<uint8_t, 8> sender_context{};
    int32_t timeout_us = 0;
    // The receive time-out (SO_RCVTIMEO) last given to a socket, and which
    // one: while it is the reply time-out, a connected exchange waits for its
    // reply inside the receive itself.
    int32_t receive_timeout_sock = -1;
    int32_t receive_timeout_us = 0;
    // A connected request waited its whole time-out for a reply: the
    // controller stopped answering on this session.
    bool went_silent = false;
};

std::unique_ptr<EipSession> _OpenSession(const char *host, uint16_t port, int buffer_size,
                                         int32_t timeout_us);
int _CipOpenSock(const char *host, uint16_t port);
// Connects with a 30 ms limit; 0 when connected, -1 (socket closed) when not.
int Set_NoBlock(int sock, const ::sockaddr_in &address);
int32_t RegisterSession(EipSession &session);
long UnRegisterSession(EipSession &session);
// Closes the socket and frees the session.
void CloseSession(std::unique_ptr<EipSession> session);

void LogCip(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void FlushCipBuffer(int enable, const uint8_t *bytes, int count);

} // namespace plc
