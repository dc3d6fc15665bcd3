#include "engine/batch_decode.h"

#include "tags/cip_types.h"
#include "tags/tag_kinds.h"
#include "util/wire.h"

namespace plc {

std::array<StringInfoRecord, kStringInfoCapacity> StringInfo{};
uint32_t string_id = 0;

namespace {

// The longest text, 49d23h59m59s999.999ms, is far below the buffer size.
static_assert(kTimeTextSize > sizeof "4294967295d23h59m59s999.999ms");

// Appends `v` in decimal, then `suffix`. Digits are divided out by constants
// (a multiplication), where snprintf cost thousands of instructions per poll.
void append(TimeText &text, size_t &len, uint32_t v, const char *suffix) {
    char digits[10];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10u);
        v /= 10u;
    } while (v != 0);
    while (n > 0) text[len++] = digits[--n];
    while (*suffix != '\0') text[len++] = *suffix++;
}

// The string rule: remembers the first character when the slot reads the
// string's first piece, and tells whether the string is known to be empty.
bool string_is_empty(const BatchSlot &slot, uint8_t first_byte) {
    if (slot.element == 0) {
        bool found = false;
        for (uint32_t r = 0; r < string_id; ++r) {
            if (StringInfo[r].tag_id == slot.tag_id) {
                StringInfo[r].first_char = first_byte;
                found = true;
                break;
            }
        }
        if (!found) {
            // With all records in use the table starts over with the new string.
            if (string_id >= kStringInfoCapacity) string_id = 0;
            StringInfo[string_id] = StringInfoRecord{slot.tag_id, 0, slot.count, first_byte};
            ++string_id;
        }
    }
    for (uint32_t r = 0; r < string_id; ++r) {
        if (StringInfo[r].tag_id == slot.tag_id && StringInfo[r].first_char == 0) return true;
    }
    return false;
}

// Bytes the byte rule consumes for a run of `count` elements.
size_t byte_rule_size(size_t count) { return count == 1 ? 2 : count + (count & 1u); }

} // namespace

size_t format_time_text(uint64_t nanoseconds, TimeText &text) {
    text.fill('\0');
    size_t len = 0;
    // Two 64-bit divisions (library calls on the panel) instead of three.
    const uint64_t microseconds = nanoseconds / 1000u;
    const uint32_t ms = static_cast<uint32_t>(microseconds / 1000u);
    const uint32_t us = static_cast<uint32_t>(microseconds % 1000u);
    int parts = 0;
    if (ms > 86399999u) {
        append(text, len, ms / 86400000u, "d");
        parts = 1;
    }
    if (const uint32_t h = (ms / 3600000u) % 24u; h != 0) {
        append(text, len, h, "h");
        ++parts;
    }
    if (const uint32_t m = (ms / 60000u) % 60u; m != 0) {
        append(text, len, m, "m");
        ++parts;
    }
    if (const uint32_t s = (ms / 1000u) % 60u; s != 0) {
        append(text, len, s, "s");
        ++parts;
    }
    if (parts == 0 || ms % 1000u != 0) {
        append(text, len, ms % 1000u, ".");
        text[len++] = static_cast<char>('0' + us / 100u);
        text[len++] = static_cast<char>('0' + us / 10u % 10u);
        append(text, len, us % 10u, "ms");
    }
    return len;
}

uint32_t time_text_unit(const TimeText &text, uint32_t unit) {
    // Units past the buffer answer 0 like units past the text.
    if (unit >= text.size() / 2) return 0;
    const size_t at = size_t(unit) * 2;
    return uint32_t(uint8_t(text[at])) | uint32_t(uint8_t(text[at + 1])) << 8;
}

namespace {

// One slot's values into its records: the number of records written, or 0 when
// the area holds fewer bytes than the slot needs or the width has no rule.
// Every slot's bytes are checked before its records are touched, so a value
// area cut short never yields zeros reported as values.
size_t decode_slot(wire::Reader &in, const BatchSlot &slot, const TagEntry &entry,
                   PlcRequest *records, TimeText &text) {
    const size_t count = slot.count;
    if (entry.type_code == kTypeTime) {
        if (in.remaining() < 8) return 0;
        format_time_text(in.u64(), text);
        for (size_t j = 0; j < count; ++j)
            records[j].result = time_text_unit(text, slot.element + uint32_t(j));
        return count;
    }
    switch (entry.bits) {
    case 1:
        if (in.remaining() < 2) return 0;
        records[0].result = in.u8() != 0 ? 1u : 0u;
        in.skip(1);
        return 1;
    case 16:
        if (in.remaining() / 2 < count) return 0;
        for (size_t j = 0; j < count; ++j) records[j].result = in.u16();
        return count;
    case 32:
        if (in.remaining() / 4 < count) return 0;
        for (size_t j = 0; j < count; ++j) records[j].result = in.u32();
        return count;
    case 0:
    case 8: {
        // A plain variable of no fixed width other than a STRING (DATE,
        // TIME_OF_DAY, DATE_AND_TIME, STIME, STRING2, a STRING without a
        // declared length) is decoded by the byte rule like an indexed one:
        // its records get defined values and the cursor stays on the layout
        // the exchange asked for.
        const size_t size = byte_rule_size(count);
        if (in.remaining() < size) return 0;
        const bool empty = entry.bits == 0 && slot.tag_id < PLC_INDEXED_TAG_BASE &&
                           dim_kind(entry) == DimKind::String &&
                           string_is_empty(slot, *in.u8_at(in.pos()));
        bool ended = false;
        for (size_t j = 0; j < count; ++j) {
            const uint8_t b = in.u8();
            if (b == 0) ended = true;
            records[j].result = (ended || empty) ? 0u : b;
        }
        in.skip(size - count);
        return count;
    }
    default: return 0;
    }
}

} // namespace

Status decode_batch_values(wire::Bytes area, const BatchPlan &plan, PlcRequest *records) {
    wire::Reader in(area);
    TimeText text; // written whole by format_time_text before it is read
    for (size_t k = 0; k < plan.items; ++k) {
        const PlannedItem &item = plan.item[k];
        if (decode_slot(in, item.run, *item.entry, records + item.first_record, text) !=
            item.run.count)
            return Status::CommFailure;
    }
    return Status::Ok;
}

} // namespace plc
