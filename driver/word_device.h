// Word access to the panel's shared memory device, with the device path as a
// parameter so that the transfer rules can be exercised on an ordinary file.
#pragma once

#include <cstdint>

namespace plc {

constexpr const char *kWordDevicePath = "/dev/sram-mmap";
// Highest word address + word count a transfer may reach.
constexpr uint64_t kWordDeviceLimit = 130500;

// Reads (write == false) or writes word_count 16-bit words at word_address,
// which lies 512 words into the device. Returns the bytes transferred, or -1.
int32_t transfer_words(const char *path, bool write, void *buffer, uint32_t word_address,
                       uint32_t word_count);

} // namespace plc
