/* A TCG plugin for qemu-arm that counts the guest instructions and system
 * calls executed between the region markers of bench_poll (a write on
 * descriptor -1, then one on -2, whose size is the region number; both fail
 * at once). One line per region goes to the file named by out=FILE:
 *
 *   region ID INSNS SYSCALLS NR:COUNT...
 *
 * Debian's qemu-user ships no plugin header, so the few functions of the
 * plugin interface (version 1, QEMU 7.2) used here are declared below.
 *
 *   qemu-arm -plugin ./libinsn_count_plugin.so,out=counts.txt ./bench_poll ...
 */
#include <inttypes.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
typedef struct {
    const char *target_name;
    struct {
        int min;
        int cur;
    } version;
    bool system_emulation;
    union {
        struct {
            int smp_vcpus;
            int max_vcpus;
        } system;
    };
} qemu_info_t;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
typedef void (*tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb *tb);
typedef void (*syscall_cb_t)(qemu_plugin_id_t id, unsigned int vcpu, int64_t num, uint64_t a1,
                             uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6,
                             uint64_t a7, uint64_t a8);
typedef void (*udata_cb_t)(qemu_plugin_id_t id, void *userdata);

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *tb, enum qemu_plugin_op op,
                                              void *ptr, uint64_t imm);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id, syscall_cb_t cb);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, udata_cb_t cb, void *userdata);

#define EXPORT __attribute__((visibility("default")))
EXPORT int qemu_plugin_version = 1;

/* 32-bit ARM EABI number of write, and the markers' descriptors. */
enum { kWrite = 4, kMaxSyscall = 512 };
static const uint64_t kBegin = 0xFFFFFFFFu, kEnd = 0xFFFFFFFEu;

/* A block's instructions are added inline when it runs: a block ends at a
 * system call, so the counts at the markers are exact. */
static uint64_t insns;
static uint64_t syscalls;
static uint64_t region_insns, region_syscalls;
static uint32_t by_number[kMaxSyscall];
static int64_t region = -1;
static FILE *out;

static void on_translate(qemu_plugin_id_t id, struct qemu_plugin_tb *tb) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &insns,
                                             qemu_plugin_tb_n_insns(tb));
}

static void on_syscall(qemu_plugin_id_t id, unsigned int vcpu, int64_t num, uint64_t a1,
                       uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7,
                       uint64_t a8) {
    (void)id, (void)vcpu, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    (void)a2;
    if (num == kWrite && ((a1 & 0xFFFFFFFFu) == kBegin || (a1 & 0xFFFFFFFFu) == kEnd)) {
        if ((a1 & 0xFFFFFFFFu) == kBegin) {
            region = (int64_t)(a3 & 0xFFFFFFFFu);
            region_insns = insns;
            region_syscalls = syscalls;
            memset(by_number, 0, sizeof by_number);
        } else if (region == (int64_t)(a3 & 0xFFFFFFFFu) && out != NULL) {
            fprintf(out, "region %" PRId64 " %" PRIu64 " %" PRIu64, region, insns - region_insns,
                    syscalls - region_syscalls);
            for (int n = 0; n < kMaxSyscall; ++n)
                if (by_number[n] != 0) fprintf(out, " %d:%u", n, by_number[n]);
            fputc('\n', out);
            fflush(out);
            region = -1;
        }
        return;
    }
    ++syscalls;
    if (num >= 0 && num < kMaxSyscall) ++by_number[num];
}

static void on_exit_(qemu_plugin_id_t id, void *userdata) {
    (void)id, (void)userdata;
    if (out != NULL) fprintf(out, "total %" PRIu64 " %" PRIu64 "\n", insns, syscalls);
    if (out != NULL && out != stderr) fclose(out);
    out = NULL;
}

EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info, int argc,
                               char **argv) {
    (void)info;
    out = stderr;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "out=", 4) == 0) {
            out = fopen(argv[i] + 4, "w");
            if (out == NULL) {
                perror(argv[i] + 4);
                return 1;
            }
        }
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translate);
    qemu_plugin_register_vcpu_syscall_cb(id, on_syscall);
    qemu_plugin_register_atexit_cb(id, on_exit_, NULL);
    return 0;
}
