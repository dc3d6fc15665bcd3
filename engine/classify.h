// Classification of one batch: which controller variables must be prepared
// (INIT_TAG) and how the requests fold into read items (the slots' counts).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "engine/request_set_cache.h"
#include "plc_driver.h"
#include "tags/tag_cache.h"

namespace plc {

constexpr size_t kBatchCapacity = 100;   // records per batch call
constexpr uint16_t kMaxRunLength = 50;   // slots folded into one read item at most
constexpr size_t kInitNameSize = 512;    // name text of one variable to prepare

// One request of the current batch.
struct BatchSlot {
    uint32_t tag_id = 0;
    uint32_t element = 0;
    uint16_t count = 0; // records this slot stands for; raised when a run is folded in
};

// One variable to prepare, with the request it was made from.
struct InitTagEntry {
    std::array<char, kInitNameSize> name{}; // zero-terminated
    uint32_t tag_id = 0;
    uint32_t element = 0;
};

extern std::array<BatchSlot, kBatchCapacity> OMRON_TEMP;
extern std::array<InitTagEntry, kBatchCapacity> INIT_TAG;
extern uint32_t reg_init_num;     // variables to prepare (records written to INIT_TAG)
extern uint32_t reg_interact_num; // read items of the batch

// 0 when the batch call can be taken, 3 when it is refused before anything else
// is done: a count below 0 or above 100, no record array, or a record whose
// count field is 0 or stands for records beyond the last one.
int check_batch_records(const PlcRequest *records, int32_t count);

// Unpacks records[0..count) (count already checked) into slots and the
// request-set key; composing a tag id writes 0 back into a high part of 1..3.
void unpack_batch_records(PlcRequest *records, int32_t count, BatchSlot *slots,
                          RequestSetKey &key);

// The element width rules the classification, the exchange and the decoding share.
inline bool is_plain_scalar(const TagEntry &e) {
    return e.hi1 == 0 && e.str_len == 0 && e.type_code != 0xD6;
}
inline bool is_bool_array(const TagEntry &e) { return !is_plain_scalar(e) && e.bits == 1; }
inline bool is_plain_tag_id(uint32_t tag_id) { return tag_id < PLC_INDEXED_TAG_BASE; }

// Outcome of a classification: 0, or 3 when the batch is refused before any
// traffic (see classify_batch).
constexpr int kClassifyOk = 0;
constexpr int kClassifyRefused = 3;

// Classifies slots[0..n) against the table: writes the names to prepare into
// names (capacity kBatchCapacity), sets the first slot of every folded run to
// the run's length, and stores the number of names and of read items. Allocates
// nothing. Returns kClassifyOk or kClassifyRefused.
int classify_batch(const TagTable &table, BatchSlot *slots, int32_t n, InitTagEntry *names,
                   uint32_t &init_num, uint32_t &interact_num);

// classify_batch on OMRON_TEMP, INIT_TAG, reg_init_num and reg_interact_num.
int Reg_Classify_Sort(const TagTable &table, int32_t n);

// Forms the name of one element of a BOOL array into out (kInitNameSize bytes):
// true, or false when the element lies outside the array or a dimension is empty.
bool format_bool_element_name(const TagEntry &entry, uint32_t element, char *out);

} // namespace plc
