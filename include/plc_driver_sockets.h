/*
 * The socket wrappers shared by the host framework and the driver, and the
 * host's UDP and TCP set-up helpers. The driver's own connection does not
 * depend on the host calling any of them. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_SOCKETS_H
#define PLC_DRIVER_SOCKETS_H

#include <netdb.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "plc_driver_api.h"

#pragma pack(push, 1)

/* Host communication settings for the set-up helpers (12 bytes). */
typedef struct CommSettings {
    uint32_t reserved; /* not used */
    uint32_t address;  /* peer IPv4 address, first octet in the most significant byte */
    uint16_t port;     /* peer port, host byte order */
    uint8_t reserved2; /* not used */
    char protocol;     /* 'U' asks for a stream (TCP) socket, anything else a datagram socket */
} CommSettings;

/* Host communication handle for the set-up helpers (20 bytes). */
typedef struct CommHandle {
    int32_t socket;               /* set by CommunicationSet; read by wk_time_set */
    int32_t reserved;             /* not used */
    int32_t wait_seconds;         /* wk_time_set mode 0: seconds to wait */
    int32_t wait_milliseconds;    /* wk_time_set mode 1: milliseconds to wait */
    uint32_t send_timeout_figure; /* CommunicationSet: send time-out of (figure % 10 + 3) s */
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

/*
 * Thin wrappers: each calls the system function of the same name (recv and
 * send with flags 0) and returns its result, errno included. They wait as the
 * socket's own settings say. wk_gethostbyname returns null for a null name;
 * wk_close_handel and wk_closesocket both close the descriptor.
 */
PLC_API ssize_t wk_recv(int sock, void *buffer, size_t length);
PLC_API ssize_t wk_send(int sock, const void *buffer, size_t length);
PLC_API ssize_t wk_recvfrom(int sock, void *buffer, size_t length, int flags, struct sockaddr *from,
                            socklen_t *from_length);
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

/*
 * Waits until handle->socket is readable: mode 0 for handle->wait_seconds,
 * mode 1 for handle->wait_milliseconds, any other mode not at all. Returns
 * select's result (1 readable, 0 time-out, -1 error); -1 with EINVAL for a
 * null handle, EBADF for a descriptor select cannot watch.
 */
PLC_API int wk_time_set(CommHandle *handle, int mode);

/*
 * Makes a datagram socket into *sock and sets *destination to the settings'
 * address and port. Returns 0 (also when the address could not be resolved:
 * the destination is then left as it was, and a line says so), -1 when no
 * socket could be made or an argument is null.
 */
PLC_API int init_udp_comm(const CommSettings *settings, int *sock, struct sockaddr_in *destination);

/*
 * Makes a socket ('U': stream, else datagram), sets its send time-out and
 * SO_REUSEADDR, and connects it to the settings' address and port (a stream
 * connect waits as long as the system does). Returns 0 with handle->socket
 * set, or -1. ReCommunicationSet does the same, for reconnecting.
 */
PLC_API int CommunicationSet(const CommSettings *settings, CommHandle *handle);
PLC_API int ReCommunicationSet(const CommSettings *settings, CommHandle *handle);

PLC_END_DECLS

#endif /* PLC_DRIVER_SOCKETS_H */
