#include "sim/message_kind.h"

#include "sim/cip.h"

namespace plc::sim {

namespace {

constexpr const char *kNames[kKindCount] = {
    "register", "forward-open", "forward-close", "resolve", "read", "write", "connected", "any",
};
constexpr size_t kSequenceSize = 2;

void AddConnectedKind(Kinds &kinds, const MrRequest &request) {
    const auto path = ParseRequestPath(request.path);
    if (!path) return;
    if (path->class_id == cip_class::kResolve && request.service == service::kResolveOrWrite)
        kinds.Add(Kind::Resolve);
    if (path->class_id == cip_class::kVariable && request.service == service::kRead)
        kinds.Add(Kind::Read);
    if (path->class_id == cip_class::kVariable && request.service == service::kResolveOrWrite)
        kinds.Add(Kind::Write);
}

void AddUnconnectedKind(Kinds &kinds, const MrRequest &request) {
    const auto path = ParseRequestPath(request.path);
    if (!path || path->class_id != cip_class::kConnectionManager) return;
    if (request.service == service::kForwardOpen || request.service == service::kLargeForwardOpen)
        kinds.Add(Kind::ForwardOpen);
    if (request.service == service::kForwardClose) kinds.Add(Kind::ForwardClose);
}

} // namespace

Kinds Classify(const Header &header, const std::vector<uint8_t> &body) {
    Kinds kinds;
    if (header.Is(Command::RegisterSession)) return kinds.Add(Kind::Register);
    const bool connected = header.Is(Command::SendUnitData);
    if (!connected && !header.Is(Command::SendRRData)) return kinds;
    if (connected) kinds.Add(Kind::Connected);
    const auto cpf = ParseCpf(body);
    if (!cpf) return kinds;
    const size_t skip = connected ? kSequenceSize : 0;
    if (cpf->data.data.size() < skip) return kinds;
    const auto request = ParseMrRequest(cpf->data.data.data() + skip, cpf->data.data.size() - skip);
    if (!request) return kinds;
    if (connected)
        AddConnectedKind(kinds, *request);
    else
        AddUnconnectedKind(kinds, *request);
    return kinds;
}

std::optional<Kind> ParseKind(std::string_view name) {
    for (size_t k = 0; k < kKindCount; ++k) {
        if (name == kNames[k]) return Kind(k);
    }
    return std::nullopt;
}

void CountKinds(Stats &stats, Kinds kinds) {
    const std::pair<Kind, std::atomic<uint64_t> *> counters[] = {
        {Kind::Register, &stats.register_requests},   {Kind::ForwardOpen, &stats.forward_open},
        {Kind::ForwardClose, &stats.forward_close},   {Kind::Resolve, &stats.resolve_requests},
        {Kind::Read, &stats.read_requests},           {Kind::Write, &stats.write_requests},
        {Kind::Connected, &stats.connected_requests},
    };
    for (const auto &[kind, counter] : counters) {
        if (kinds.Has(kind)) ++*counter;
    }
}

} // namespace plc::sim
