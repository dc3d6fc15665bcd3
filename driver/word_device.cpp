// The exported word device helpers. Nothing in the driver calls them; the
// host's framework uses them to reach the panel's shared memory.
#include "driver/word_device.h"

#include <fcntl.h>
#include <unistd.h>

#include "plc_driver.h"
#include "util/unique_fd.h"

namespace plc {

namespace {
constexpr off_t kWordZeroOffset = 512;
} // namespace

int32_t transfer_words(const char *path, bool write, void *buffer, uint32_t word_address,
                       uint32_t word_count) {
    const UniqueFd fd(::open(path, write ? O_WRONLY : O_RDWR));
    if (fd.get() < 0) return -1;
    // The bound is taken on the true sum: a sum that wraps 32 bits (or turns
    // negative as a signed number) would otherwise pass and let a transfer of
    // up to 8 GB run over the caller's buffer. A missing buffer is refused too.
    const uint64_t end = uint64_t{word_address} + word_count;
    if (buffer == nullptr || end > kWordDeviceLimit) return -1;
    const off_t offset = (static_cast<off_t>(word_address) + kWordZeroOffset) * 2;
    if (::lseek(fd.get(), offset, SEEK_SET) == static_cast<off_t>(-1)) return -1;
    const size_t bytes = static_cast<size_t>(word_count) * 2;
    const ssize_t done = write ? ::write(fd.get(), buffer, bytes) : ::read(fd.get(), buffer, bytes);
    return done < 0 ? -1 : static_cast<int32_t>(done);
}

} // namespace plc

extern "C" {

int32_t ReadRw(void *buffer, uint32_t word_address, uint32_t word_count) {
    return plc::transfer_words(plc::kWordDevicePath, false, buffer, word_address, word_count);
}

int32_t WriteRw(void *buffer, uint32_t word_address, uint32_t word_count) {
    return plc::transfer_words(plc::kWordDevicePath, true, buffer, word_address, word_count);
}

} // extern "C"
