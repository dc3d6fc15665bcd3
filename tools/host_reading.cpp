// Reading runs of elements through whichever entry carries them.
#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tools/host_session.h"

namespace plc::host {
namespace {

constexpr size_t kMaxBatchRecords = 100;

// The batch read folds records for consecutive elements of one variable into
// one read item, and in an item of 8-bit elements it reads everything behind
// a zero byte as 0. Elements of one 8-bit array that stand together are
// therefore asked for from the highest down, which it never folds.
std::vector<size_t> send_order(const std::vector<BatchElement> &elements) {
    std::vector<size_t> order(elements.size());
    std::iota(order.begin(), order.end(), size_t(0));
    for (size_t i = 0; i < order.size();) {
        const HostTag *tag = elements[i].tag;
        size_t j = i + 1;
        if (tag->is_array() && element_bytes(*tag) == 1)
            while (j < order.size() && elements[j].tag == tag) ++j;
        std::sort(order.begin() + long(i), order.begin() + long(j),
                  [&](size_t a, size_t b) { return elements[a].position > elements[b].position; });
        i = j;
    }
    return order;
}

} // namespace

int run_batch_elements(Host &h, const std::vector<BatchElement> &shown, std::vector<Value> &values,
                       int &calls_made) {
    const std::vector<size_t> order = send_order(shown);
    std::vector<BatchElement> elements;
    for (size_t k : order) elements.push_back(shown[k]);
    std::vector<PlcRequest> records;
    for (const BatchElement &e : elements)
        records.insert(records.end(), e.records.begin(), e.records.end());
    std::vector<char> ok(records.size(), 0);
    int status = 0;
    calls_made = 0;
    for (const BatchCall &c : split_batch(elements, kMaxBatchRecords)) {
        bool overrun = false;
        const int s = h.batch(&records[c.first_record], c.records, overrun);
        ++calls_made;
        if (overrun) {
            std::fprintf(stderr,
                         "plc-host: the driver wrote past the %zu records of a batch call\n",
                         c.records);
            if (status == 0) status = 2;
            continue;
        }
        if (s == 0)
            std::fill(ok.begin() + long(c.first_record),
                      ok.begin() + long(c.first_record + c.records), 1);
        else if (status == 0)
            status = s;
        // A lost connection fails the rest of this poll too; leave the retry to the next poll.
        if (s == 2) break;
    }
    values.assign(shown.size(), Value{});
    size_t at = 0;
    for (size_t i = 0; i < elements.size(); ++i) {
        const BatchElement &e = elements[i];
        const bool all =
            std::all_of(ok.begin() + long(at), ok.begin() + long(at + e.records.size()),
                        [](char c) { return c != 0; });
        if (all) values[order[i]] = decode_batch_element(e, &records[at]);
        at += e.records.size();
    }
    return status;
}

bool check_read(uint16_t device, const ElementRun &run, HostError &err) {
    if (!read_through_batch(run)) {
        SingleReadPlan plan;
        return plan_single_read(run, plan, err);
    }
    BatchElement e;
    for (int64_t k = 0; k < run.count; ++k)
        if (!plan_batch_element(device, *run.tag, run.first + k, e, err)) return false;
    return true;
}

ElementRun resolve_or_die(const Host &h, const std::string &text) {
    ElementRun run;
    HostError err;
    if (!resolve_ref(h.tags, text, run, err)) {
        if (err.exit_code == kExitUnknown && run.tag == nullptr)
            err.message += " (not in " + h.tag_list + ")";
        die(err.exit_code, err.message, h.opt.json);
    }
    return run;
}

bool read_run(Host &h, const ElementRun &run, std::vector<std::string> &labels,
              std::vector<Value> &values, int &status) {
    const uint16_t device = uint16_t(h.opt.device);
    HostError err;
    labels.clear();
    if (read_through_batch(run)) {
        std::vector<BatchElement> elements(size_t(run.count));
        for (int64_t k = 0; k < run.count; ++k) {
            if (!plan_batch_element(device, *run.tag, run.first + k, elements[size_t(k)], err))
                die(err.exit_code, err.message, h.opt.json);
            labels.push_back(elements[size_t(k)].label);
        }
        int calls = 0;
        status = run_batch_elements(h, elements, values, calls);
        return status == 0;
    }
    SingleReadPlan plan;
    if (!plan_single_read(run, plan, err)) die(err.exit_code, err.message, h.opt.json);
    PlcRequest request = make_record(device, *run.tag, plan.element_index);
    std::vector<uint8_t> buffer;
    status = h.single_read(request, plan.count, plan.buffer_bytes, buffer);
    if (status != 0) return false;
    values = decode_single_read(run, buffer.data(), buffer.size());
    for (size_t k = 0; k < values.size(); ++k)
        labels.push_back(element_label(*run.tag, run.first + int64_t(k)));
    return true;
}

} // namespace plc::host
