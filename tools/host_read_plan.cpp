// Reads: the single read's buffer layout and the batch read's records.
#include <algorithm>

#include "sim/time_text.h"
#include "tools/host_access.h"
#include "util/wire.h"

namespace plc::host {
namespace {

// The driver's value area holds the bytes of one single read.
constexpr size_t kSingleReadValueBytes = 4096;
// Records that carry one TIME text through the batch entry: two characters
// each, enough for the longest rendering ("49d17h2m47s295.999ms") and its end.
constexpr uint32_t kTimeTextRecords = 12;
constexpr uint32_t kMaxElementIndex = 0xFFFF;

Value image_of(const HostTag &tag, uint64_t raw) {
    Value v;
    if (tag.code() == kTypeBool)
        v.image = {uint8_t(raw != 0)};
    else
        v.image = sim::LittleEndian(raw, element_bytes(tag));
    return v;
}

// Characters up to the first NUL, and the NUL.
Value text_value(const std::vector<uint8_t> &chars) {
    Value v;
    v.image.assign(chars.begin(), std::find(chars.begin(), chars.end(), uint8_t(0)));
    v.image.push_back(0);
    return v;
}

// Bytes per element in the driver's value area, and the host buffer's size.
bool plan_numeric(const ElementRun &run, SingleReadPlan &plan, HostError &err) {
    const HostTag &tag = *run.tag;
    const uint32_t n = uint32_t(run.count);
    size_t bytes_per = element_bytes(tag);
    plan.count = n;
    plan.buffer_bytes = bytes_per * n;
    if (bytes_per == 8) {
        uint32_t last = 0;
        if (!host_element_index(tag, run.first + run.count - 1, last, err)) return false;
        plan.count = 2 * n;
    } else if (bytes_per == 1) {
        plan.buffer_bytes = 2 * size_t(n); // one 16-bit register per byte
    } else if (bytes_per == 0) {           // BOOL: one byte
        plan.count = 1;
        plan.buffer_bytes = 1;
        bytes_per = 1;
    }
    if (bytes_per * size_t(n) > kSingleReadValueBytes)
        return fail(err, kExitUsage,
                    "at most " + std::to_string(kSingleReadValueBytes / bytes_per) + " " +
                        tag.type->name + " elements per read");
    return true;
}

} // namespace

bool batch_carries(const HostTag &tag) {
    return !is_date_like(tag) && !is_open_text(tag) && tag.code() != kTypeString2;
}

bool read_through_batch(const ElementRun &run) {
    const HostTag &tag = *run.tag;
    if (tag.code() == kTypeTime) return true;
    // The single read resolves one BOOL element by "name[index]", which names a
    // multi-dimensional element wrongly; the batch entry spells its subscripts.
    if (tag.code() == kTypeBool && tag.is_array()) return run.count > 1 || tag.dims.size() > 1;
    return false;
}

bool addressed_whole(const ElementRun &run, HostError &err) {
    const HostTag &tag = *run.tag;
    if (!tag.is_array()) return true;
    return fail(err, kExitConfig,
                "arrays of " + std::string(tag.type->name) + " cannot be addressed by the host");
}

bool plan_single_read(const ElementRun &run, SingleReadPlan &plan, HostError &err) {
    const HostTag &tag = *run.tag;
    plan = SingleReadPlan{};
    if ((is_text(tag) || is_date_like(tag)) && !addressed_whole(run, err)) return false;
    if (is_text(tag)) {
        plan.count = tag.str_len ? tag.str_len : uint32_t(run.count);
        plan.buffer_bytes = size_t(plan.count) * 2;
        if (plan.count > kSingleReadValueBytes)
            return fail(err, kExitUsage, "at most 4096 characters per read");
        return true;
    }
    if (is_date_like(tag)) {
        plan.count = 8;
        plan.buffer_bytes = 16;
        return true;
    }
    if (!host_element_index(tag, run.first, plan.element_index, err)) return false;
    return plan_numeric(run, plan, err);
}

std::vector<Value> decode_single_read(const ElementRun &run, const uint8_t *buffer, size_t size) {
    const HostTag &tag = *run.tag;
    wire::Reader in(buffer, size);
    if (is_text(tag) || is_date_like(tag)) {
        std::vector<uint8_t> bytes;
        while (in.remaining() >= 2) bytes.push_back(uint8_t(in.u16()));
        if (is_text(tag)) return {text_value(bytes)};
        Value v;
        v.image = bytes;
        return {v};
    }
    std::vector<Value> out;
    const uint32_t width = element_bytes(tag);
    for (int64_t k = 0; k < run.count; ++k) {
        uint64_t raw = 0;
        if (width == 8)
            raw = in.u64();
        else if (width == 4)
            raw = in.u32();
        else if (width == 2)
            raw = in.u16();
        else if (width == 1)
            raw = uint8_t(in.u16());
        else
            raw = in.u8();
        out.push_back(in.ok() ? image_of(tag, raw) : Value{});
    }
    return out;
}

bool plan_batch_element(uint16_t device, const HostTag &tag, int64_t position, BatchElement &out,
                        HostError &err) {
    out = BatchElement{};
    out.tag = &tag;
    out.position = position;
    out.label = element_label(tag, position);
    if (tag.code() == kTypeTime) {
        if (tag.is_array())
            return fail(err, kExitConfig,
                        "'" + out.label + "': the driver renders TIME texts only for scalars");
        for (uint32_t e = 0; e < kTimeTextRecords; ++e)
            out.records.push_back(make_record(device, tag, e));
        return true;
    }
    if (is_text(tag)) {
        for (uint32_t e = 0; e < tag.str_len && e <= kMaxElementIndex; ++e)
            out.records.push_back(make_record(device, tag, e));
        return true;
    }
    uint32_t e = 0;
    if (!host_element_index(tag, position, e, err)) return false;
    out.records.push_back(make_record(device, tag, e));
    if (element_bytes(tag) == 8) out.records.push_back(make_record(device, tag, e + 1));
    return true;
}

Value decode_batch_element(const BatchElement &element, const PlcRequest *records) {
    const HostTag &tag = *element.tag;
    const size_t n = element.records.size();
    if (tag.code() == kTypeTime || is_text(tag)) {
        std::vector<uint8_t> bytes;
        for (size_t k = 0; k < n; ++k) {
            bytes.push_back(uint8_t(records[k].result));
            if (tag.code() == kTypeTime) bytes.push_back(uint8_t(records[k].result >> 8));
        }
        const Value text = text_value(bytes);
        if (tag.code() != kTypeTime) return text;
        // The driver renders a TIME as text; it reads back in the shared syntax.
        const auto ns =
            sim::ParseDuration(std::string_view(reinterpret_cast<const char *>(text.image.data())));
        return ns ? image_of(tag, uint64_t(*ns)) : Value{};
    }
    uint64_t raw = records[0].result;
    if (n == 2) raw |= uint64_t(records[1].result) << 32;
    return image_of(tag, raw);
}

std::vector<BatchCall> split_batch(const std::vector<BatchElement> &elements, size_t limit) {
    std::vector<BatchCall> calls;
    BatchCall cur;
    size_t record = 0;
    auto flush = [&] {
        if (cur.records) calls.push_back(cur);
        cur = BatchCall{};
    };
    for (size_t i = 0; i < elements.size(); ++i) {
        const size_t r = elements[i].records.size();
        if (r > limit) {
            flush();
            for (size_t done = 0; done < r; done += limit)
                calls.push_back(BatchCall{i, i + 1, record + done, std::min(limit, r - done)});
            record += r;
            continue;
        }
        if (cur.records + r > limit) flush();
        if (cur.records == 0) {
            cur.first_element = i;
            cur.first_record = record;
        }
        cur.records += r;
        cur.end_element = i + 1;
        record += r;
    }
    flush();
    return calls;
}

} // namespace plc::host
