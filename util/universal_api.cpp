// Small helpers the host framework and the driver share: sleeping, seeding the
// random generator, file access at an offset, a log file, hex dumps and
// bit-length rounding. Everything here is callable from C and never throws.
#include "plc_driver_utilities.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "util/unique_fd.h"

namespace plc {
namespace {

// Files that Read_File or Write_File create are readable by everybody and
// writable by the owner only; the process umask may narrow this further.
constexpr mode_t kCreatedFileMode = 0644;

// Opens with the given flags (always creating a missing file) and positions at
// the offset. A descriptor below 1 counts as failure; descriptor 0 is closed
// again rather than leaked, since the caller never learns of it.
int open_at(const char *path, int flags, int32_t offset) {
    if (path == nullptr) return -1;
    const int fd = ::open(path, flags | O_CREAT, kCreatedFileMode);
    if (fd < 1) {
        if (fd == 0) ::close(fd);
        return -1;
    }
    // The seek's result is deliberately not examined: a seek that fails leaves
    // the position at the start of the freshly opened file.
    (void)::lseek(fd, static_cast<off_t>(offset), SEEK_SET);
    return fd;
}

void print_line_end() { std::fputs("\r\n", stdout); }

// Ten bytes to a line after a heading that does not end its own line.
void dump_bytes(const uint8_t *bytes, int32_t count) {
    // No bytes to show (including a missing buffer): just end the heading.
    if (count < 1 || bytes == nullptr) {
        print_line_end();
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        if (i % 10 == 0) print_line_end();
        std::printf("0x%02x ", bytes[i]);
    }
    print_line_end();
}

} // namespace
} // namespace plc

extern "C" {

int wk_sleep(uint32_t microseconds) { return ::usleep(microseconds); }

void wk_sleep_ms(uint32_t milliseconds) {
    if (milliseconds == 0) return;
    // One call never sleeps longer than a second.
    ::usleep(std::min<uint32_t>(milliseconds, 1000u) * 1000u);
}

void wk_srand(void) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    std::srand(static_cast<uint32_t>(now.tv_sec) + static_cast<uint32_t>(now.tv_usec));
}

int Read_File(const char *path, void *buffer, int32_t offset, uint32_t count) {
    const plc::UniqueFd fd(plc::open_at(path, O_RDONLY, offset));
    if (fd.get() < 0) return -1;
    return static_cast<int>(::read(fd.get(), buffer, count));
}

int Write_File(const char *path, const void *bytes, int32_t offset, uint32_t count) {
    // Not truncated: only the bytes written change, the rest of the file stays.
    const plc::UniqueFd fd(plc::open_at(path, O_WRONLY, offset));
    if (fd.get() < 0) return -1;
    return static_cast<int>(::write(fd.get(), bytes, count));
}

void wk_log(const char *path, const char *format, ...) {
    if (path == nullptr || format == nullptr) return;
    std::FILE *file = std::fopen(path, "a");
    if (file == nullptr) return;

    // A message longer than 255 characters is cut to its first 255: the
    // formatter never writes past the buffer and always terminates it.
    std::array<char, 256> message{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(message.data(), message.size(), format, args);
    va_end(args);

    std::fputs(message.data(), file);
    std::fclose(file);
}

void dump_b(const uint8_t *bytes, int32_t count) {
    std::printf("[%s] len=%d", "dump_b", count);
    plc::dump_bytes(bytes, count);
}

void _dump(const char *title, const uint8_t *bytes, int32_t count) {
    // A missing title prints as an empty one.
    std::printf("[%s]\tlen=%d", title != nullptr ? title : "", count);
    plc::dump_bytes(bytes, count);
}

uint32_t bit2byte_len(uint32_t bits) { return bits / 8 + (bits % 8 != 0 ? 1u : 0u); }

uint32_t bit2word_len(uint32_t bits) { return bits / 16 + (bits % 16 != 0 ? 1u : 0u); }

} // extern "C"
