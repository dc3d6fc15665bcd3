/*
 * c-host: a host written against plc_driver.h alone, doing what a panel
 * runtime does every day: bring the driver up, poll a screen's worth of
 * variables with one batch read, write a few of them, and poll again to see
 * the new values.
 *
 *   c-host [CONTROLLER [DEVICE_PORT]]     (default 127.0.0.1 and 1)
 *
 * It needs the tag list PLC7F000001_1.csv of this folder in its working
 * directory (the name carries the controller's address and the device
 * number) and a controller: run.sh starts plc-sim with that list in a private
 * network namespace and runs this program against it.
 *
 * Build against an installed driver:
 *   cc -std=c99 -Wall -Wextra -pedantic c_host.c $(pkg-config --cflags --libs plc_driver)
 *
 * Exit status 0 when every call succeeded and the values written were read
 * back, 1 otherwise.
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "plc_driver.h"

/* The tag ids: the lines of PLC7F000001_1.csv, counted from 0. */
enum {
    TAG_LIVE_COUNTER = 0,  /* DINT */
    TAG_LIVE_SINE = 1,     /* REAL */
    TAG_MACHINE_STATE = 2, /* INT */
    TAG_SET_POINTS = 3,    /* INT[0..3] */
    TAG_ENERGY_TOTAL = 4,  /* LINT: two 32-bit words */
    TAG_OPERATOR = 5,      /* STRING, 16 characters */
    TAG_CYCLE_TIME = 6     /* TIME: read as text, two characters per record */
};

enum { DEVICE = 1, OPERATOR_LENGTH = 16, TIME_RECORDS = 12, SET_POINTS = 4 };

/* Where each variable's records start in the poll. */
enum {
    AT_COUNTER = 0,
    AT_SINE = AT_COUNTER + 1,
    AT_STATE = AT_SINE + 1,
    AT_SET_POINTS = AT_STATE + 1,
    AT_ENERGY = AT_SET_POINTS + SET_POINTS,
    AT_OPERATOR = AT_ENERGY + 2,
    AT_CYCLE_TIME = AT_OPERATOR + OPERATOR_LENGTH,
    POLL_RECORDS = AT_CYCLE_TIME + TIME_RECORDS
};

/* One record for one element. Tag ids of indexed tags (from
 * PLC_INDEXED_TAG_BASE) carry their bits 16 to 23 in tag_high. */
static PlcRequest record(uint32_t tag_id, uint16_t element) {
    PlcRequest r;
    memset(&r, 0, sizeof r);
    r.device = DEVICE;
    r.tag_high = tag_id >= PLC_INDEXED_TAG_BASE ? (uint8_t)(tag_id >> 16) : 0;
    r.address = (tag_id & 0xFFFFu) << 16 | element;
    r.count = 1; /* each record stands alone; the driver joins consecutive elements */
    return r;
}

static void build_poll(PlcRequest *poll) {
    int i;
    poll[AT_COUNTER] = record(TAG_LIVE_COUNTER, 0);
    poll[AT_SINE] = record(TAG_LIVE_SINE, 0);
    poll[AT_STATE] = record(TAG_MACHINE_STATE, 0);
    for (i = 0; i < SET_POINTS; ++i) poll[AT_SET_POINTS + i] = record(TAG_SET_POINTS, (uint16_t)i);
    poll[AT_ENERGY] = record(TAG_ENERGY_TOTAL, 0);     /* low word */
    poll[AT_ENERGY + 1] = record(TAG_ENERGY_TOTAL, 1); /* high word */
    for (i = 0; i < OPERATOR_LENGTH; ++i) poll[AT_OPERATOR + i] = record(TAG_OPERATOR, (uint16_t)i);
    for (i = 0; i < TIME_RECORDS; ++i)
        poll[AT_CYCLE_TIME + i] = record(TAG_CYCLE_TIME, (uint16_t)i);
}

/* The text of a STRING (one character per record) or a TIME (two per record). */
static void text_of(const PlcRequest *records, int n, int per_record, char *out, size_t size) {
    size_t len = 0;
    int i, k;
    for (i = 0; i < n; ++i) {
        for (k = 0; k < per_record; ++k) {
            const char c = (char)((records[i].result >> (8 * k)) & 0xFFu);
            if (c == '\0' || len + 1 >= size) {
                out[len] = '\0';
                return;
            }
            out[len++] = c;
        }
    }
    out[len] = '\0';
}

struct Values {
    int32_t counter;
    float sine;
    int16_t state;
    int16_t set_points[SET_POINTS];
    int64_t energy;
    char operator_name[OPERATOR_LENGTH + 1];
    char cycle_time[2 * TIME_RECORDS + 1];
};

static int poll_once(struct Values *v) {
    PlcRequest poll[POLL_RECORDS];
    uint32_t bits;
    int i;
    int32_t status;
    build_poll(poll);
    status = wk_OMRON_plc_read(poll, POLL_RECORDS);
    if (status != PLC_STATUS_OK) {
        printf("poll: %d (%s)\n", (int)status, plc_status_text(status));
        return 0;
    }
    v->counter = (int32_t)poll[AT_COUNTER].result;
    bits = poll[AT_SINE].result; /* a REAL arrives as its IEEE 754 bits */
    memcpy(&v->sine, &bits, sizeof v->sine);
    v->state = (int16_t)(uint16_t)poll[AT_STATE].result; /* 16-bit values are not sign-extended */
    for (i = 0; i < SET_POINTS; ++i)
        v->set_points[i] = (int16_t)(uint16_t)poll[AT_SET_POINTS + i].result;
    v->energy = (int64_t)((uint64_t)poll[AT_ENERGY + 1].result << 32 | poll[AT_ENERGY].result);
    text_of(poll + AT_OPERATOR, OPERATOR_LENGTH, 1, v->operator_name, sizeof v->operator_name);
    text_of(poll + AT_CYCLE_TIME, TIME_RECORDS, 2, v->cycle_time, sizeof v->cycle_time);

    printf("LiveCounter=%" PRId32 " LiveSine=%.3f MachineState=%d SetPoints=%d,%d,%d,%d "
           "EnergyTotal=%" PRId64 " OperatorName=\"%s\" CycleTime=%s\n",
           v->counter, (double)v->sine, v->state, v->set_points[0], v->set_points[1],
           v->set_points[2], v->set_points[3], v->energy, v->operator_name, v->cycle_time);
    return 1;
}

/* One write; PlcData.count counts elements (characters of a STRING). */
static int write_one(const char *what, uint32_t tag_id, uint16_t element, uint32_t count,
                     void *buffer) {
    PlcRequest request = record(tag_id, element);
    PlcData data;
    int32_t status;
    data.count = count;
    data.buffer = buffer;
    status = wk_plc_write(&request, &data);
    printf("write %s: %d (%s)\n", what, (int)status, plc_status_text(status));
    return status == PLC_STATUS_OK;
}

static int write_values(void) {
    /* 16-bit elements: two bytes each, little-endian. */
    uint8_t state[2] = {1, 0};
    uint8_t set_points[2 * SET_POINTS] = {10, 0, 20, 0, 30, 0, 40, 0};
    /* Characters: one 16-bit register each, the character in the low byte. The
     * whole declared length is written so that no old characters remain. */
    uint8_t name[2 * OPERATOR_LENGTH];
    /* A TIME: decimal milliseconds as text. */
    char cycle_time[] = "1500";
    const char *text = "Alice";
    size_t i;
    int ok = 1;
    memset(name, 0, sizeof name);
    for (i = 0; text[i] != '\0'; ++i) name[2 * i] = (uint8_t)text[i];

    ok &= write_one("MachineState = 1", TAG_MACHINE_STATE, 0, 1, state);
    ok &= write_one("SetPoints[0..3] = 10 20 30 40", TAG_SET_POINTS, 0, SET_POINTS, set_points);
    ok &= write_one("OperatorName = \"Alice\"", TAG_OPERATOR, 0, OPERATOR_LENGTH, name);
    ok &= write_one("CycleTime = 1500 ms", TAG_CYCLE_TIME, 0, 1, cycle_time);
    return ok;
}

/* 192.168.250.1 -> 0xC0A8FA01; 0 when the text is not an address. */
static uint32_t parse_address(const char *text) {
    unsigned a, b, c, d;
    char end;
    if (sscanf(text, "%u.%u.%u.%u%c", &a, &b, &c, &d, &end) != 4 || a > 255 || b > 255 || c > 255 ||
        d > 255)
        return 0;
    return (uint32_t)a << 24 | (uint32_t)b << 16 | (uint32_t)c << 8 | (uint32_t)d;
}

int main(int argc, char **argv) {
    /* The driver keeps a pointer to the settings: they must outlive it. */
    static DriverSettings settings;
    DriverInfo info;
    uint8_t port = (uint8_t)(argc > 2 ? atoi(argv[2]) : 1);
    struct Values before, after;
    int32_t status;
    int ok;

    settings.ip_address = parse_address(argc > 1 ? argv[1] : "127.0.0.1");
    if (settings.ip_address == 0) {
        fprintf(stderr, "usage: c-host [CONTROLLER [DEVICE_PORT]]\n");
        return 1;
    }
    wk_plc_driver_info(&info);
    printf("libplc_driver %s, driver %u.%u\n", PLC_DRIVER_VERSION_STRING, (unsigned)info.first,
           (unsigned)info.second);

    wk_plc_init(&settings);
    /* Not fatal: every later call brings the connection up again when needed. */
    status = wk_plc_init2(0, 0, &port);
    printf("bring-up: %d (%s)\n", (int)status, plc_status_text(status));

    ok = poll_once(&before);
    ok &= write_values();
    ok &= poll_once(&after);
    if (!ok) return 1;

    if (after.state != 1 || after.set_points[0] != 10 || after.set_points[3] != 40 ||
        strcmp(after.operator_name, "Alice") != 0 || strcmp(after.cycle_time, "1s500.000ms") != 0) {
        printf("read back: the values written did not come back\n");
        return 1;
    }
    printf("read back: ok\n");
    return 0;
}
