// The single-request engine: resolution of one variable, the single read and
// the write, each over the controller link the driver hands down.
#pragma once

#include <cstdint>

#include "engine/element_rules.h"
#include "engine/handle_store.h"
#include "engine/link.h"
#include "plc_driver_records.h"
#include "tags/tag_cache.h"
#include "util/status.h"

namespace plc {

// What one single read or write addresses, found and checked before any
// traffic: the tag list's table, the variable's entry, and the name and
// handle key it is resolved under (one element of a BOOL array by itself,
// everything else as the whole variable).
struct SingleTarget {
    const TagTable *table = nullptr;
    const TagEntry *entry = nullptr;
    uint32_t tag_id = 0;
    uint32_t element = 0;
    HandleKey key;
    NameText name{};
};

// Finds the request's table and entry (printing the entry's messages) and
// forms the name and key: Ok, or ConfigError when the request names nothing
// the controller could be asked for.
Status find_single_target(const DriverSettings *settings, PlcRequest &request, const PlcData &data,
                          const TagLookupLines &lines, SingleTarget &target);

// Resolves the target by name and stores its handle: Ok; ConfigError when
// the controller does not know the variable (the connection stays up);
// CommFailure when the exchange failed or the reply was not a resolve reply
// (the connection is then reported broken).
Status REG_INIT(ControllerLink &link, const SingleTarget &target);

// REG_INIT unless a handle is kept for the target and label_reupdata allows
// its use.
Status ensure_resolved(ControllerLink &link, const SingleTarget &target);

// The host's single read (wk_plc_read).
Status single_read(ControllerLink &link, const DriverSettings *settings, PlcRequest &request,
                   PlcData &data);

// Builds and exchanges one write of a checked target.
Status OMRON_WRITE_REQ(ControllerLink &link, const SingleTarget &target, const PlcData &data);

// The host's write (wk_plc_write).
Status write_entry(ControllerLink &link, const DriverSettings *settings, PlcRequest &request,
                   PlcData &data);

} // namespace plc
