/*
 * Public interface of libplc_driver.so: the records the host panel runtime
 * exchanges with the driver, the status codes, and every exported function.
 * Usable from C and C++. All records are little-endian and packed.
 */
#ifndef PLC_DRIVER_H
#define PLC_DRIVER_H

#include <stddef.h>
#include <stdint.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#if defined(__GNUC__)
#define PLC_API __attribute__((visibility("default")))
#define PLC_NORETURN __attribute__((noreturn))
#else
#define PLC_API
#define PLC_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes returned to the host. */
enum {
    PLC_STATUS_OK = 0,
    PLC_STATUS_COMM_FAILURE = 2,   /* connection down, exchange failed, unexpected reply */
    PLC_STATUS_CONFIG_ERROR = 3,   /* tag list, tag id, element index, bring-up */
    PLC_STATUS_REGISTER_REFUSED = -1 /* wk_plc_init2 only: session registration refused */
};

/* First tag id of the indexed tags; plain tag ids lie below it. */
#define PLC_INDEXED_TAG_BASE 0x40000u

#pragma pack(push, 1)

/* The host's settings record; the driver keeps a pointer and never copies it. */
typedef struct DriverSettings {
    uint8_t reserved[4];
    uint32_t ip_address; /* first octet in the most significant byte */
} DriverSettings;

/* One request record (20 bytes). */
typedef struct PlcRequest {
    uint16_t device;      /* second number of the tag list name "PLC%X_%d.csv" */
    uint8_t unused2;
    uint8_t tag_high;     /* 0..3: no high part (written back as 0); 4..255: tag id bits 16..23 */
    uint32_t address;     /* bits 31..16: tag id bits 15..0; bits 15..0: element index */
    uint16_t count;       /* batch read: count; single write: bit position written back */
    uint8_t unused10[6];
    uint32_t result;      /* batch read: the element's value */
} PlcRequest;

/* Value record of a single read or write (8 bytes on the 32-bit panel). */
typedef struct PlcData {
    uint32_t count;
    void *buffer;
} PlcData;

/* Identity record filled by wk_plc_driver_info. */
typedef struct DriverInfo {
    uint16_t first;
    uint16_t second;
} DriverInfo;

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

/* One parsed tag list line (natural layout, 288 bytes). */
typedef struct TagEntry {
    char name[256];
    uint32_t bits;
    uint16_t type_code;
    uint16_t lo1, hi1;
    uint16_t lo2, hi2;
    uint16_t lo3, hi3;
    uint16_t str_len;
    uint32_t bit_no;
    uint32_t dim_type;
    uint32_t tag_id;
} TagEntry;

/* Host entry points. */
PLC_API int32_t wk_plc_driver_info(DriverInfo *info);
PLC_API int32_t wk_plc_init(DriverSettings *settings);
PLC_API int32_t wk_plc_init2(uint32_t unused1, uint32_t unused2, const uint8_t *device_port);
PLC_API int32_t wk_plc_read(PlcRequest *request, PlcData *data);
PLC_API int32_t wk_plc_write(PlcRequest *request, PlcData *data);
PLC_API int32_t wk_OMRON_plc_read(PlcRequest *requests, int32_t count);
PLC_API int32_t wk_OMRON_plc_register(void);
PLC_API PLC_NORETURN void wk_plc_slave_main(void);

/* Word device helpers (/dev/sram-mmap). */
PLC_API int32_t ReadRw(void *buffer, uint32_t word_address, uint32_t word_count);
PLC_API int32_t WriteRw(void *buffer, uint32_t word_address, uint32_t word_count);

/* Socket wrappers and communication set-up. */
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

/* Utilities. */
PLC_API int wk_sleep(uint32_t microseconds);
PLC_API void wk_sleep_ms(uint32_t milliseconds);
PLC_API void wk_srand(void);
PLC_API int Read_File(const char *path, void *buffer, int32_t offset, uint32_t count);
PLC_API int Write_File(const char *path, const void *bytes, int32_t offset, uint32_t count);
PLC_API void wk_log(const char *path, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;
PLC_API void dump_b(const uint8_t *bytes, int32_t count);
PLC_API void _dump(const char *title, const uint8_t *bytes, int32_t count);
PLC_API uint32_t bit2byte_len(uint32_t bits);
PLC_API uint32_t bit2word_len(uint32_t bits);

/* Checksums. */
PLC_API int CalcFileMD5(char *path, char *digest_out);
PLC_API uint16_t crc16(const uint8_t *bytes, uint8_t count);

/* Tag list line parser (simple variant: no name rule, no double words, no tag id). */
PLC_API int add_tag_pase_str(const char *line, TagEntry *entry);

#ifdef __cplusplus
} /* extern "C" */
#endif

#ifdef __cplusplus
static_assert(sizeof(DriverSettings) == 8, "DriverSettings layout");
static_assert(sizeof(PlcRequest) == 20, "PlcRequest layout");
static_assert(sizeof(DriverInfo) == 4, "DriverInfo layout");
static_assert(sizeof(PlcData) == 4 + sizeof(void *), "PlcData layout");
static_assert(sizeof(CommSettings) == 12, "CommSettings layout");
static_assert(sizeof(CommHandle) == 20, "CommHandle layout");
static_assert(sizeof(TagEntry) == 288, "TagEntry layout");
#endif

#endif /* PLC_DRIVER_H */
