// Writes: values in the shared syntax turned into the driver's host buffers.
#include <algorithm>
#include <cstdio>

#include "tools/host_access.h"

namespace plc::host {
namespace {

// A write carries its value length in one byte.
constexpr size_t kMaxWriteValueBytes = 255;

bool plan_text(const ElementRun &run, const std::vector<std::string> &values,
               std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    if (!addressed_whole(run, err)) return false;
    if (values.size() != 1)
        return fail(err, kExitUsage, "a text takes one VALUE (quote it if it has blanks)");
    const std::string &s = values[0];
    if (tag.str_len && s.size() > tag.str_len)
        return fail(err, kExitUsage,
                    "'" + tag.name + "' holds at most " + std::to_string(tag.str_len) +
                        " characters");
    // The whole declared length is written, zero-padded, so that no old
    // characters survive behind the new text.
    const size_t count = tag.str_len ? tag.str_len : s.size() + 1;
    if (count > kMaxWriteValueBytes)
        return fail(err, kExitUsage, "a write carries at most 255 characters");
    WriteOp op;
    op.label = tag.name;
    op.count = uint32_t(count);
    op.buffer.assign(2 * count, 0);
    for (size_t j = 0; j < s.size(); ++j) op.buffer[2 * j] = uint8_t(s[j]);
    ops.push_back(std::move(op));
    return true;
}

// The driver takes a TIME as decimal milliseconds and keeps whole
// microseconds of it. A trailing 5 below the microseconds keeps a value like
// 1.001 from reading as 1.000999... and losing its last microsecond.
std::vector<uint8_t> time_text(const std::vector<uint8_t> &image) {
    const uint64_t us = sim::FromLittleEndian(image.data(), 8) / 1000;
    char text[48];
    std::snprintf(text, sizeof text, "%llu.%03llu5", static_cast<unsigned long long>(us / 1000),
                  static_cast<unsigned long long>(us % 1000));
    const std::string s(text);
    std::vector<uint8_t> out(s.begin(), s.end());
    out.push_back(0);
    return out;
}

// The driver moves these 8 bytes one per 16-bit register.
bool plan_date_like(const ElementRun &run, const std::vector<uint8_t> &image,
                    std::vector<WriteOp> &ops, HostError &err) {
    if (!addressed_whole(run, err)) return false;
    WriteOp op;
    op.label = run.tag->name;
    op.count = 8;
    for (const uint8_t b : image) op.buffer.insert(op.buffer.end(), {b, 0});
    ops.push_back(std::move(op));
    return true;
}

// TIME and BOOL: one write per element (the driver shifts a BOOL into place).
bool plan_each(const ElementRun &run, const std::vector<std::vector<uint8_t>> &images,
               std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    for (size_t k = 0; k < images.size(); ++k) {
        WriteOp op;
        op.label = element_label(tag, run.first + int64_t(k));
        op.count = 1;
        if (!host_element_index(tag, run.first + int64_t(k), op.element_index, err)) return false;
        if (tag.code() == kTypeBool) {
            op.buffer = {images[k][0], 0};
        } else if (int64_t(sim::FromLittleEndian(images[k].data(), 8)) < 0) {
            return fail(err, kExitUsage, "a TIME written by the driver cannot be negative");
        } else {
            op.buffer = time_text(images[k]);
        }
        ops.push_back(std::move(op));
    }
    return true;
}

// Runs of numbers, as many per write as its one-byte length admits.
bool plan_numbers(const ElementRun &run, const std::vector<std::vector<uint8_t>> &images,
                  std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    const size_t width = element_bytes(tag);
    const size_t per_write = width == 1 ? kMaxWriteValueBytes : kMaxWriteValueBytes / width;
    const int64_t n = int64_t(images.size());
    for (int64_t k0 = 0; k0 < n; k0 += int64_t(per_write)) {
        const int64_t m = std::min<int64_t>(int64_t(per_write), n - k0);
        WriteOp op;
        op.label = element_label(tag, run.first + k0) + (m > 1 ? " +" + std::to_string(m - 1) : "");
        uint32_t last = 0;
        if (!host_element_index(tag, run.first + k0, op.element_index, err) ||
            !host_element_index(tag, run.first + k0 + m - 1, last, err))
            return false;
        for (int64_t k = k0; k < k0 + m; ++k) {
            const std::vector<uint8_t> &image = images[size_t(k)];
            op.buffer.insert(op.buffer.end(), image.begin(), image.end());
            if (width == 1) op.buffer.push_back(0); // byte i at buffer byte 2i
        }
        op.count = uint32_t(width == 8 ? 2 * m : m);
        ops.push_back(std::move(op));
    }
    return true;
}

bool plan_elements(const ElementRun &run, const std::vector<std::vector<uint8_t>> &images,
                   std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    if (is_date_like(tag)) return plan_date_like(run, images[0], ops, err);
    if (tag.code() == kTypeBool && tag.dims.size() > 1)
        // The driver resolves a single BOOL element as "name[index]", which for
        // more than one dimension names no element the controller knows.
        return fail(err, kExitConfig,
                    "'" + element_label(tag, run.first) +
                        "': the driver cannot write elements of a multi-dimensional BOOL array "
                        "(it would name " +
                        tag.name + "[" + std::to_string(run.first) + "])");
    if (tag.code() == kTypeBool || tag.code() == kTypeTime) return plan_each(run, images, ops, err);
    return plan_numbers(run, images, ops, err);
}

} // namespace

bool plan_write(const ElementRun &run, const std::vector<std::string> &values,
                std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    ops.clear();
    if (values.empty()) return fail(err, kExitUsage, "write needs at least one VALUE");
    if (is_text(tag)) return plan_text(run, values, ops, err);

    const int64_t n = int64_t(values.size());
    if (run.has_range && n != run.count)
        return fail(err, kExitUsage,
                    "the range has " + std::to_string(run.count) + " element(s) but " +
                        std::to_string(n) + " value(s) were given");
    if (run.first + n > tag.element_count())
        return fail(err, kExitUnknown,
                    std::to_string(n) + " value(s) from " + element_label(tag, run.first) +
                        " run past the end of " + tag.name +
                        (tag.dims.empty() ? std::string() : bounds_text(tag)));
    std::vector<std::vector<uint8_t>> images(values.size());
    for (size_t k = 0; k < values.size(); ++k) {
        std::string why;
        if (!parse_value(tag, values[k], images[k], why))
            return fail(err, kExitUsage,
                        "value '" + values[k] + "' for " + tag.type->name + ": " + why);
    }
    return plan_elements(run, images, ops, err);
}

} // namespace plc::host
