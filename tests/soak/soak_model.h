// What the soak's host believes the controller holds, and the host records
// that poll all of it. Every variable of the tag list is polled; those whose
// name starts with "Wr_" are written by the soak, the others must keep their
// initial values for ever.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "plc_driver.h"
#include "tags/cip_types.h"
#include "tools/host_access.h"
#include "tools/host_tags.h"

namespace plc::soak {

struct Variable {
    const host::HostTag *tag = nullptr;
    bool written = false;      // the soak writes it
    std::vector<uint64_t> raw; // per element: the bit pattern (TIME: nanoseconds)
    std::string text;          // STRING
};

// One element of a poll: its records lie at [first_record, first_record + records).
struct PolledElement {
    size_t var = 0;
    host::BatchElement element;
    size_t first_record = 0;
};

// A wrong value in a successful poll.
struct Mismatch {
    std::string label;
    std::string expected;
    std::string got;
};

class Model {
public:
    // Reads the tag list and the initial values ("NAME=VALUE" or
    // "NAME[i]=VALUE" lines); false with a message.
    bool load(const std::string &tag_file, const std::string &initial_file, uint16_t device,
              std::string &error);

    // The poll's records, their results preset to the complement of what is
    // expected, so that a result the driver leaves untouched cannot pass.
    std::vector<PlcRequest> &prepare_poll();
    // Compares the records of a successful poll with the model. Elements of
    // written variables are skipped when `check_written` is false. Returns
    // the number of wrong elements; the first `keep` of them go into `out`.
    size_t check(bool check_written, std::vector<Mismatch> &out, size_t keep) const;

    std::vector<size_t> written_variables() const;
    const Variable &variable(size_t var) const { return vars_[var]; }
    size_t polled_records() const { return records_.size(); }

    // A new random value for one element, or for every element, of a written
    // variable; the model takes it as what the controller should now hold.
    // Returns the run and the value texts of the write that carries it.
    host::ElementRun change(size_t var, std::mt19937_64 &rng, std::vector<std::string> &texts);
    // The write that carries the whole of a variable's current value.
    host::ElementRun whole(size_t var, std::vector<std::string> &texts) const;

private:
    bool assign(const std::string &line, std::string &error);
    void expect(const PolledElement &p, PlcRequest *out) const;

    host::HostTagList list_;
    std::vector<Variable> vars_;
    std::vector<PolledElement> polled_;
    std::vector<PlcRequest> records_;
    std::vector<PlcRequest> expected_;
};

// A TIME as the batch read renders it ("1d2h3m4s5.000ms").
std::string render_time(uint64_t nanoseconds);

} // namespace plc::soak
