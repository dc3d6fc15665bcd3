// A reply to a batch read request, decoded into the records: the batch comes
// from the first bytes (up to 15 records over a table of every kind of
// variable), the reply from the rest. A reply is taken only with exactly the
// items sent and at least the value bytes they need; then exactly those bytes
// reach the decoding, which must fill every record.
#include <array>
#include <cstring>

#include "engine/batch_decode.h"
#include "engine/classify.h"
#include "engine/read_codec.h"
#include "fuzz_support.h"
#include "tags/cip_types.h"
#include "tags/tag_kinds.h"

using namespace plc;

namespace {

TagEntry make(const char *name, uint16_t code, uint32_t bits, DimKind dim, uint16_t hi1,
              uint16_t str_len = 0) {
    TagEntry e{};
    std::strncpy(e.name, name, sizeof e.name - 1);
    e.type_code = code;
    e.bits = bits;
    set_dim_kind(e, dim);
    e.hi1 = hi1;
    e.str_len = str_len;
    return e;
}

const TagTable &table() {
    static const TagTable t = [] {
        TagTable t;
        t.serial = 1;
        const TagEntry entries[] = {
            make("Dint", kTypeDint, 32, DimKind::Scalar, 0),
            make("Ints", kTypeInt, 16, DimKind::OneDim, 9),
            make("Bytes", kTypeUsint, 8, DimKind::OneDim, 9),
            make("Flags", kTypeBool, 1, DimKind::OneDim, 15),
            make("Up", kTypeTime, 64, DimKind::Scalar, 0),
            make("Text", kTypeString, 0, DimKind::String, 0, 12),
            make("Day", kTypeDate, 0, DimKind::Scalar, 0),
            make("Long", kTypeLint, 32, DimKind::OneDim, 7),
        };
        for (const TagEntry &e : entries) {
            t.tag_str.push_back(e);
            t.tag_str.back().tag_id = uint32_t(t.tag_str.size() - 1);
        }
        t.tag_num = uint32_t(t.tag_str.size());
        return t;
    }();
    return t;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t n = std::min<size_t>(data[0] % kItemsPerRequest + 1, (size - 1) / 2);
    if (n == 0) return 0;
    std::array<PlcRequest, kItemsPerRequest> records{};
    for (size_t i = 0; i < n; ++i) {
        const uint32_t tag = data[1 + 2 * i] % table().tag_num;
        records[i].address = (tag << 16) | (data[2 + 2 * i] % 8u);
        records[i].count = 1;
    }
    RequestSetKey key;
    if (check_batch_records(records.data(), int32_t(n)) != Status::Ok) return 0;
    unpack_batch_records(records.data(), int32_t(n), key);
    if (Reg_Classify_Sort(table(), int32_t(n)) != Status::Ok) return 0;

    static BatchPlan plan;
    make_batch_plan(table(), records.data(), int32_t(n), plan);
    size_t needed = 0;
    for (size_t k = 0; k < plan.items; ++k)
        needed += item_value_bytes(plan.item[k].geometry.bit_length);
    const size_t head = 1 + 2 * n;
    wire::Bytes values;
    const ReplyCheck check =
        parse_read_reply(wire::Bytes{data + head, size - head}, reg_interact_num, needed, values);
    if (check != ReplyCheck::Ok) return 0;
    fuzz::require(values.size == needed && fuzz::inside(values, data, size), "exactly the values");
    fuzz::require(decode_batch_values(values, plan, records.data()) == Status::Ok,
                  "the values of every item decode");
    return 0;
}
