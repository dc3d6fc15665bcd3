/*
 * The socket wrappers shared by the host framework and the driver, and the
 * host's UDP and TCP set-up helpers. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_SOCKETS_H
#define PLC_DRIVER_SOCKETS_H

#include <stddef.h>
#include <stdint.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "plc_driver_api.h"

#pragma pack(push, 1)

/* Host communication settings for the set-up helpers. */
typedef struct CommSettings {
    uint32_t reserved;
    uint32_t address;   /* first octet in the most significant byte */
    uint16_t port;      /* host byte order */
    uint8_t reserved2;
    char protocol;      /* 'U' asks for a stream socket, anything else a datagram socket */
} CommSettings;

/* Host communication handle for the set-up helpers. */
typedef struct CommHandle {
    int32_t socket;
    int32_t reserved;
    int32_t wait_seconds;
    int32_t wait_milliseconds;
    uint32_t send_timeout_figure;
} CommHandle;

#pragma pack(pop)

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(CommSettings) == 12, "CommSettings layout");
static_assert(sizeof(CommHandle) == 20, "CommHandle layout");
static_assert(offsetof(CommSettings, address) == 4 && offsetof(CommSettings, port) == 8 &&
                  offsetof(CommSettings, protocol) == 11,
              "CommSettings layout");
static_assert(offsetof(CommHandle, wait_seconds) == 8 &&
                  offsetof(CommHandle, send_timeout_figure) == 16,
              "CommHandle layout");
#endif

PLC_BEGIN_DECLS

PLC_API ssize_t wk_recv(int sock, void *buffer, size_t length);
PLC_API ssize_t wk_send(int sock, const void *buffer, size_t length);
PLC_API ssize_t wk_recvfrom(int sock, void *buffer, size_t length, int flags,
                            struct sockaddr *from, socklen_t *from_length);
PLC_API ssize_t wk_sendto(int sock, const void *buffer, size_t length, int flags,
                          const struct sockaddr *to, socklen_t to_length);
PLC_API int wk_socket(int domain, int type, int protocol);
PLC_API int wk_connect(int sock, const struct sockaddr *address, socklen_t length);
PLC_API struct hostent *wk_gethostbyname(const char *name);
PLC_API int wk_setsockopt(int sock, int level, int name, const void *value, socklen_t length);
PLC_API int wk_bind(int sock, const struct sockaddr *address, socklen_t length);
PLC_API int wk_listen(int sock, int backlog);
PLC_API int wk_accept(int sock, struct sockaddr *address, socklen_t *length);
PLC_API int wk_close_handel(int sock);
PLC_API int wk_closesocket(int sock);
PLC_API int wk_time_set(CommHandle *handle, int mode);
PLC_API int init_udp_comm(const CommSettings *settings, int *sock, struct sockaddr_in *destination);
PLC_API int CommunicationSet(const CommSettings *settings, CommHandle *handle);
PLC_API int ReCommunicationSet(const CommSettings *settings, CommHandle *handle);

PLC_END_DECLS

#endif /* PLC_DRIVER_SOCKETS_H */
