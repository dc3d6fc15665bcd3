// plc-host poll: the batch entry every interval, as a panel's polling loop
// calls it, with what it cannot carry read through the single read.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "tools/host_commands.h"
#include "tools/host_diagnose.h"

namespace plc::host {
namespace {

struct PollItem {
    std::string label;
    const HostTag *tag = nullptr;
    bool batch = true;
    size_t index = 0; // into the batch elements or the single runs
};

struct PollPlan {
    std::vector<PollItem> items;
    std::vector<BatchElement> batch;
    std::vector<ElementRun> singles;
};

PollPlan plan_poll(const Host &h, const std::vector<std::string> &names) {
    PollPlan plan;
    HostError err;
    for (const std::string &n : names) {
        const ElementRun run = resolve_or_die(h, n);
        if (!batch_carries(*run.tag)) {
            if (!check_read(uint16_t(h.opt.device), run, err))
                die(err.exit_code, err.message, h.opt.json);
            plan.items.push_back(
                {element_label(*run.tag, run.first), run.tag, false, plan.singles.size()});
            plan.singles.push_back(run);
            continue;
        }
        for (int64_t k = 0; k < run.count; ++k) {
            BatchElement e;
            if (!plan_batch_element(uint16_t(h.opt.device), *run.tag, run.first + k, e, err))
                die(err.exit_code, err.message, h.opt.json);
            plan.items.push_back({e.label, run.tag, true, plan.batch.size()});
            plan.batch.push_back(std::move(e));
        }
    }
    return plan;
}

struct PollResult {
    int status = 0;
    int calls = 0;
    double ms = 0;
    std::string why; // the first failure, in words
    std::vector<Value> values;
};

PollResult poll_once(Host &h, const PollPlan &plan) {
    PollResult r;
    const double start = Host::now_seconds();
    std::vector<Value> batch_values;
    if (!plan.batch.empty()) r.status = run_batch_elements(h, plan.batch, batch_values, r.calls);
    if (r.status != 0)
        r.why = explain_status(r.status, h.last_log, false, *h.opt.controller, h.last_seconds);
    std::vector<Value> single_values(plan.singles.size());
    for (size_t k = 0; k < plan.singles.size() && r.status != 2; ++k) {
        std::vector<std::string> labels;
        std::vector<Value> values;
        int status = 0;
        ++r.calls;
        if (read_run(h, plan.singles[k], labels, values, status)) {
            single_values[k] = values.empty() ? Value{} : values[0];
        } else if (r.status == 0) {
            r.status = status;
            r.why = explain_status(status, h.last_log, false, *h.opt.controller, h.last_seconds);
        }
    }
    for (const PollItem &item : plan.items)
        r.values.push_back(item.batch ? batch_values.empty() ? Value{} : batch_values[item.index]
                                      : single_values[item.index]);
    r.ms = (Host::now_seconds() - start) * 1000;
    return r;
}

std::string ms_text(double ms) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", ms);
    return buf;
}

void print_json(const PollPlan &plan, long poll, const PollResult &r) {
    std::string s = "{\"poll\":" + std::to_string(poll) +
                    ",\"status\":" + std::to_string(r.status) +
                    ",\"duration_ms\":" + ms_text(r.ms) + ",\"calls\":" + std::to_string(r.calls);
    if (!r.why.empty()) s += ",\"error\":" + json_string(r.why);
    s += ",\"values\":[";
    for (size_t i = 0; i < plan.items.size(); ++i) {
        const PollItem &it = plan.items[i];
        s += std::string(i ? "," : "") + "{\"name\":" + json_string(it.label) +
             ",\"type\":" + json_string(it.tag->type->name) +
             ",\"value\":" + json_value(*it.tag, r.values[i]) + "}";
    }
    std::printf("%s]}\n", s.c_str());
}

void print_table(const Host &h, const PollPlan &plan, long poll, const PollResult &r) {
    size_t width = 4;
    for (const PollItem &it : plan.items) width = std::max(width, it.label.size());
    std::printf("\033[H\033[2J");
    std::printf("plc-host poll  %s  device %u  poll %ld  status %d  %s ms  every %ld ms\n",
                h.opt.controller_text.c_str(), h.opt.device, poll, r.status, ms_text(r.ms).c_str(),
                h.opt.interval_ms);
    std::printf("%s\n\n", r.why.empty() ? "ok" : r.why.c_str());
    std::printf("%-*s  %-13s  %s\n", int(width), "NAME", "TYPE", "VALUE");
    for (size_t i = 0; i < plan.items.size(); ++i) {
        const PollItem &it = plan.items[i];
        std::printf("%-*s  %-13s  %s\n", int(width), it.label.c_str(), it.tag->type->name,
                    format_value(*it.tag, r.values[i]).c_str());
    }
    if (!h.table_lines.empty()) {
        std::printf("\ndriver:\n");
        for (const std::string &l : h.table_lines) std::printf("  %s\n", l.c_str());
    }
}

void print_line(const PollPlan &plan, long poll, const PollResult &r) {
    std::string s = "poll " + std::to_string(poll) + " status " + std::to_string(r.status) + " " +
                    ms_text(r.ms) + " ms:";
    for (size_t i = 0; i < plan.items.size(); ++i)
        s += " " + plan.items[i].label + "=" + format_value(*plan.items[i].tag, r.values[i]);
    std::printf("%s\n", s.c_str());
}

// Polls start on a fixed schedule; a slow poll is followed at once by the next.
void wait_until(double next_s) {
    for (double wait = next_s - Host::now_seconds(); wait > 0 && !interrupted();
         wait = next_s - Host::now_seconds()) {
        const double step = std::min(wait, 0.1);
        timespec ts{};
        ts.tv_sec = time_t(step);
        ts.tv_nsec = long((step - double(ts.tv_sec)) * 1e9);
        nanosleep(&ts, nullptr);
    }
}

} // namespace

int cmd_poll(Host &h, const std::vector<std::string> &names) {
    if (names.empty()) die(kExitUsage, "poll takes at least one NAME", h.opt.json);
    const PollPlan plan = plan_poll(h, names);
    h.table = !h.opt.json && isatty(STDOUT_FILENO);
    const int init = h.start();
    if (init != 0 && !h.table)
        std::fprintf(stderr,
                     "plc-host: no connection to the controller at %s: %s; polling anyway\n",
                     h.opt.controller_text.c_str(),
                     explain_bringup(init, h.last_log, *h.opt.controller, h.last_seconds).c_str());
    int last_status = 0;
    std::string last_why;
    const double t0 = Host::now_seconds();
    for (long poll = 1; (h.opt.times < 0 || poll <= h.opt.times) && !interrupted(); ++poll) {
        const PollResult r = poll_once(h, plan);
        if (h.opt.json)
            print_json(plan, poll, r);
        else if (h.table)
            print_table(h, plan, poll, r);
        else
            print_line(plan, poll, r);
        std::fflush(stdout);
        // A failure is told once, until it changes.
        if (!h.opt.json && !h.table && r.why != last_why && !r.why.empty())
            std::fprintf(stderr, "plc-host: poll %ld: %s\n", poll, r.why.c_str());
        last_status = r.status;
        last_why = r.why;
        if (h.opt.times >= 0 && poll >= h.opt.times) break;
        wait_until(t0 + double(poll) * double(h.opt.interval_ms) / 1000.0);
    }
    return exit_for_status(last_status);
}

} // namespace plc::host
