#include "engine/batch_exchange.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "engine/batch_decode.h"

namespace plc {

namespace {

constexpr uint16_t kTimeTypeCode = 0xD6;
constexpr int kLineTransRecv = 2123;

// Width of one element in bits; types without a fixed width travel as bytes.
uint32_t element_width(const TagEntry &entry) {
    const uint32_t width = entry.bits & 0xFFu;
    return width == 0 ? 8u : width;
}

} // namespace

ReadItem read_item_geometry(const TagEntry &entry, const BatchSlot &slot) {
    ReadItem item;
    const uint32_t width = element_width(entry);
    // Computed in 32-bit unsigned arithmetic as the controller reads the field;
    // an element below the array's lower bound is the controller's to refuse,
    // and its short reply ends the call.
    if (entry.dim_type == 0 || entry.bits == 1) {
        item.bit_offset = 0;
    } else if (entry.dim_type == 1) {
        item.bit_offset = (slot.element - uint32_t(entry.lo1)) * width;
    } else {
        item.bit_offset = slot.element * width;
    }
    item.bit_length = entry.type_code == kTimeTypeCode ? width : uint32_t(slot.count) * width;
    return item;
}

int parse_read_reply(const uint8_t *reply, size_t reply_len, size_t sent, size_t needed,
                     ReadReplyValues &values) {
    values = ReadReplyValues{};
    if (reply == nullptr || sent == 0 || sent > kItemsPerRequest) return 2;
    wire::Reader in(reply, reply_len);
    if (in.u8_at(0) != kReplyRead) return 2;
    // The whole 32-bit item number must match, not only its low byte: the
    // value bytes are located from it, and a number that merely shares the low
    // byte would place them outside the reply.
    if (in.u32_at(4) != sent) return 2;
    const size_t values_at = kReadReplyFieldsAt + 2 * sent;
    // A reply cut short (fewer value bytes than the items asked for) is not
    // the expected one: its missing values must not be reported as zeros, and
    // the buffer beyond the reply holds bytes of earlier replies.
    if (!in.has(values_at, needed)) return 2;
    values.data = reply + values_at;
    values.size = reply_len - values_at;
    return 0;
}

int exchange_batch(CipExchange &link, ExchangeBuffer &send, const TagTable &table,
                   ExchangeBuffer &recv, PlcRequest *records, int32_t count) {
    const size_t total_items = reg_interact_num;
    const size_t slots = count > 0 ? std::min<size_t>(size_t(count), OMRON_TEMP.size()) : 0;
    std::array<uint8_t, kValueAreaSize> area{};
    size_t area_len = 0;

    size_t s = 0; // slot of the next item, running on from request to request
    for (size_t done = 0; done < total_items;) {
        const size_t batch = std::min(kItemsPerRequest, total_items - done);
        std::array<ReadItem, kItemsPerRequest> items{};
        size_t needed = 0;
        for (size_t k = 0; k < batch; ++k) {
            // The classification forms exactly reg_interact_num items over the
            // slots; running out of slots, or a slot of count 0, means the
            // tables do not belong together.
            if (s >= slots || OMRON_TEMP[s].count == 0) return 3;
            const BatchSlot &slot = OMRON_TEMP[s];
            if (copy_from_link(INIT_RET_DATA.get(), slot.element, slot.tag_id, items[k].handle,
                               table) != 0) {
                std::printf("copy_from_link error\r\n");
                init = 0;
                return 2;
            }
            const TagEntry *entry = find_entry(table, slot.tag_id);
            if (entry == nullptr) return 3;
            const ReadItem geometry = read_item_geometry(*entry, slot);
            items[k].bit_offset = geometry.bit_offset;
            items[k].bit_length = geometry.bit_length;
            needed += item_value_bytes(geometry.bit_length);
            s += slot.count;
        }

        wire::Writer out(send.data(), send.size());
        if (!build_read_request(out, recv_flag_data1, items.data(), batch)) {
            init = 0;
            return 2;
        }
        uint32_t reply_len = 0;
        if (link.transact(send.data(), static_cast<uint32_t>(out.size()), recv.data(),
                          &reply_len, kServiceRead, recv.size()) < 0) {
            std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
            init = 0;
            return 2;
        }
        ReadReplyValues values;
        if (parse_read_reply(recv.data(), std::min<size_t>(reply_len, recv.size()), batch, needed,
                             values) != 0) {
            init = 0;
            return 2;
        }
        // The value area is fixed; a reply that would not fit is not one this
        // batch asked for.
        if (values.size > area.size() - area_len) {
            init = 0;
            return 2;
        }
        if (values.size != 0) std::memcpy(area.data() + area_len, values.data, values.size);
        area_len += values.size;
        done += batch;
    }

    if (count <= 0) return 0;
    const int result = decode_batch_values(area.data(), area_len, OMRON_TEMP.data(),
                                           static_cast<int32_t>(slots), table, records);
    if (result == 2) init = 0;
    return result;
}

int OMRON_INTERACT(EipSession *session, CipConnection *connection, ExchangeBuffer &send,
                   const TagTable &table, ExchangeBuffer &recv, PlcRequest *records,
                   int32_t count) {
    ConnectedExchange link(session, connection);
    return exchange_batch(link, send, table, recv, records, count);
}

} // namespace plc
