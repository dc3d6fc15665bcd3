// Faults on demand: what the simulated controller does wrong, to which kind
// of request message, and when. A fault is written
//
//   KIND:ACTION[=VALUE][,after=N][,times=N][,p=P][,seed=S]
//
// and applies to the messages of its kind once `after` of them have passed
// since it was set, at most `times` times (0: no limit), each with
// probability `p` drawn from a generator seeded with `seed`. Of several
// faults that would apply to one message, the first set wins.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "sim/message_kind.h"

namespace plc::sim {

enum class Action : uint8_t {
    NoReply,         // carried out, no reply
    Delay,           // the reply after VALUE ms (default 12000: past a 10 s wait)
    Close,           // half the reply, then the TCP connection closed (FIN)
    Reset,           // half the reply, then the TCP connection reset (RST)
    Truncate,        // only the first VALUE body bytes (default half), length to match
    Length,          // the header's length field +N, -N or N; the bytes unchanged
    WrongSession,    // another session handle
    WrongConnection, // another connection id in the connected reply
    WrongSequence,   // another sequence count in the connected reply
    WrongService,    // another reply service code
    Status,          // the CIP reply replaced by general status GG, additional words
    FewerBytes,      // VALUE (default 1) response data bytes fewer
    MoreBytes,       // VALUE (default 1) response data bytes more
    Garbage,         // VALUE (default 64) random bytes instead of the reply
    Huge,            // the reply, then filler: VALUE bytes in all (default 300000)
    Refuse,          // Forward_Open refused: out of connections
    Duplicate,       // the reply sent twice
    Restart,         // no reply; every session, connection and handle forgotten
};

struct Fault {
    Kind kind = Kind::Any;
    Action action = Action::NoReply;
    int64_t value = 0;
    bool relative = false; // Length: value is added to the true length
    uint8_t general = 0;   // Status
    std::vector<uint16_t> additional;
    uint64_t after = 0;
    uint64_t times = 0;
    double probability = 1.0;
    uint32_t seed = 1;
    std::string text;  // as it was written
    uint32_t draw = 0; // per application: seeds Garbage's bytes
};

// None, with `error` set, for text that does not follow the syntax above.
std::optional<Fault> ParseFault(std::string_view text, std::string *error);

// The faults in force; shared by every client thread and the control channel.
class FaultBook {
public:
    void Add(const Fault &fault);
    // Every fault; or those of one kind.
    void Clear();
    void Clear(Kind kind);
    // One line per fault: its text, how many messages it saw, how often it
    // applied.
    std::string List() const;
    // The fault to apply to a message of these kinds, if any.
    std::optional<Fault> Pick(Kinds kinds);

private:
    struct Entry {
        Fault fault;
        std::mt19937 random;
        uint64_t seen = 0;
        uint64_t applied = 0;
    };
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

} // namespace plc::sim
