// plc-host read and write (with --verify).
#include <cstdio>

#include "tools/host_commands.h"

namespace plc::host {
namespace {

void print_values(const Host &h, const std::vector<std::string> &labels, const HostTag &tag,
                  const std::vector<Value> &values) {
    if (h.opt.json) {
        std::string s = "{\"status\":0,\"values\":[";
        for (size_t i = 0; i < values.size(); ++i) {
            s += std::string(i ? "," : "") + "{\"name\":" + json_string(labels[i]) +
                 ",\"type\":" + json_string(tag.type->name) +
                 ",\"value\":" + json_value(tag, values[i]) + "}";
        }
        std::printf("%s]}\n", s.c_str());
        return;
    }
    for (size_t i = 0; i < values.size(); ++i)
        std::printf("%s = %s\n", labels[i].c_str(), format_value(tag, values[i]).c_str());
}

// The values as they were meant to land: a TIME keeps whole microseconds.
std::vector<Value> written_values(const ElementRun &run, const std::vector<std::string> &texts) {
    std::vector<Value> out(texts.size());
    for (size_t k = 0; k < texts.size(); ++k) {
        std::string why;
        if (is_text(*run.tag)) {
            out[k].image.assign(texts[k].begin(), texts[k].end());
            out[k].image.push_back(0);
        } else if (parse_value(*run.tag, texts[k], out[k].image, why) &&
                   run.tag->code() == kTypeTime) {
            const uint64_t ns = sim::FromLittleEndian(out[k].image.data(), 8);
            out[k].image = sim::LittleEndian(ns / 1000 * 1000, 8);
        }
    }
    return out;
}

// What the controller holds after the write, next to what was written.
void verify(Host &h, const ElementRun &written, const std::vector<std::string> &texts,
            std::string &json) {
    ElementRun run = written;
    if (!is_text(*run.tag)) run.count = int64_t(texts.size());
    if (is_open_text(*run.tag)) run.count = int64_t(texts[0].size() + 1);
    std::vector<std::string> labels;
    std::vector<Value> read;
    int status = 0;
    if (!read_run(h, run, labels, read, status)) h.die_status("reading back", status, false);
    const std::vector<Value> wrote = written_values(run, texts);
    const HostTag &tag = *run.tag;
    for (size_t k = 0; k < wrote.size() && k < read.size(); ++k) {
        const std::string a = format_value(tag, wrote[k]), b = format_value(tag, read[k]);
        json += std::string(k ? "," : "") + "{\"name\":" + json_string(labels[k]) +
                ",\"written\":" + json_value(tag, wrote[k]) +
                ",\"read\":" + json_value(tag, read[k]) +
                ",\"same\":" + (a == b ? "true" : "false") + "}";
        if (!h.opt.json)
            std::printf("%s: wrote %s, reads back %s%s\n", labels[k].c_str(), a.c_str(), b.c_str(),
                        a == b ? "" : " (the controller changed it)");
    }
}

} // namespace

int cmd_read(Host &h) {
    const auto &args = h.opt.args;
    if (args.empty() || args.size() > 2)
        die(kExitUsage, "read takes NAME[INDEX] [COUNT]", h.opt.json);
    ElementRun run = resolve_or_die(h, args[0]);
    HostError err;
    if (args.size() == 2) {
        unsigned long n = 0;
        if (!parse_unsigned(args[1], 65536, n) || n == 0)
            die(kExitUsage, "COUNT must be a number from 1 to 65536", h.opt.json);
        if (run.has_range) die(kExitUsage, "give either a range or a COUNT", h.opt.json);
        run.count = long(n);
    } else if (!run.whole && !run.has_range) {
        run.count = 1;
    }
    if (!check_run(run, err) || !check_read(uint16_t(h.opt.device), run, err))
        die(err.exit_code, err.message, h.opt.json);
    h.start_or_die();
    std::vector<std::string> labels;
    std::vector<Value> values;
    int status = 0;
    if (!read_run(h, run, labels, values, status))
        h.die_status("read of " + args[0], status, false);
    print_values(h, labels, *run.tag, values);
    return kExitOk;
}

int cmd_write(Host &h) {
    if (h.opt.args.size() < 2) die(kExitUsage, "write takes NAME[INDEX] VALUE...", h.opt.json);
    const ElementRun run = resolve_or_die(h, h.opt.args[0]);
    const std::vector<std::string> values(h.opt.args.begin() + 1, h.opt.args.end());
    std::vector<WriteOp> ops;
    HostError err;
    if (!plan_write(run, values, ops, err)) die(err.exit_code, err.message, h.opt.json);
    h.start_or_die();
    std::string written;
    for (WriteOp &op : ops) {
        PlcRequest request = make_record(uint16_t(h.opt.device), *run.tag, op.element_index);
        PlcData data{};
        data.count = op.count;
        data.buffer = op.buffer.data();
        const int status = h.call([&] { return h.api().write(&request, &data); });
        written += std::string(written.empty() ? "" : ",") + "{\"name\":" + json_string(op.label) +
                   ",\"status\":" + std::to_string(status) + "}";
        if (status != 0) h.die_status("write of " + op.label, status, true);
        if (!h.opt.json && !h.opt.verify) std::printf("wrote %s\n", op.label.c_str());
    }
    std::string verified;
    if (h.opt.verify) verify(h, run, values, verified);
    if (h.opt.json)
        std::printf("{\"status\":0,\"written\":[%s]%s}\n", written.c_str(),
                    h.opt.verify ? (",\"verified\":[" + verified + "]").c_str() : "");
    return kExitOk;
}

} // namespace plc::host
