// The resolve exchange (service 0x56 by name), single or batch: the request
// carrying one "VAR://" path item per name, and the reply giving the request
// prefix and one handle per name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "eip/mr_reply.h"
#include "engine/engine_state.h"
#include "engine/handle_store.h"
#include "util/wire.h"

namespace plc {

constexpr std::string_view kPathScheme = "VAR://";
// The path text's length travels in one byte.
constexpr size_t kMaxPathText = 255;
constexpr size_t kNamesPerRequest = 20;
// The items of one request must fit the controller's 4095-byte item area.
constexpr size_t kMaxResolveItemsBytes = 4095;
constexpr size_t kResolveReplyItemSize = 24;

// Bytes of the item for this name: "VAR://" + name padded to an even length,
// plus 6; 0 when the path text would not fit its length byte.
size_t resolve_item_size(std::string_view name);

// Whether names[0..count) can be sent: every path fits its item and every
// request of up to 20 names fits the item area.
bool resolve_names_fit(const std::string_view *names, size_t count);

// The request data for names[0..count) (1 to 20 names): false when they do not
// fit or the writer ran out of room.
bool build_resolve_request(wire::Writer &out, const std::string_view *names, size_t count);

// Checks the reply to a request of `sent` names and copies out the request
// prefix and one handle per name when it is Ok. Unexpected also covers an
// answered count other than `sent` and items that do not fit the reply.
ReplyCheck parse_resolve_reply(wire::Bytes reply, size_t sent, RequestPrefix &prefix,
                               VarHandle *handles, uint8_t *general_status);

// Tells the host which names a Refused reply concerned: the tag list names a
// variable that the controller's program does not have.
void report_unknown_variables(const std::string_view *names, size_t count, uint8_t general);

} // namespace plc
