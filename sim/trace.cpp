#include "sim/trace.h"

#include <cstdio>

#include "sim/cip.h"
#include "sim/wire.h"

namespace plc::sim {

namespace {

constexpr size_t kSequenceSize = 2;

std::string DescribeMrRequest(const uint8_t *bytes, size_t size) {
    const auto mr = ParseMrRequest(bytes, size);
    if (!mr) return " mr=<malformed " + std::to_string(size) + "B>";
    return " svc=" + Hex(mr->service) + " path=" + HexBytes(mr->path) +
           " data=" + std::to_string(mr->data.size()) + "B [" + HexBytes(mr->data, 16) + "]";
}

std::string DescribeMrReply(const uint8_t *bytes, size_t size) {
    wire::Reader in(bytes, size);
    const uint8_t service = in.u8();
    in.u8();
    const uint8_t general = in.u8();
    const uint8_t words = in.u8();
    std::string text = " svc=" + Hex(service) + " general=" + Hex(general);
    if (words) {
        text += " ext=";
        for (uint8_t i = 0; i < words && in.ok(); ++i) text += (i ? "," : "") + Hex(in.u16(), 4);
    }
    if (in.ok())
        text += " data=" + std::to_string(in.remaining()) + "B [" +
                HexBytes(in.here(), in.remaining(), 16) + "]";
    return text;
}

// The items of a SendRRData / SendUnitData body and the CIP message inside.
std::string DescribeCpf(const Cpf &cpf, bool reply) {
    const auto &mr = reply ? DescribeMrReply : DescribeMrRequest;
    if (cpf.data.Is(Item::ConnectedData) && cpf.address.data.size() == 4 &&
        cpf.data.data.size() >= kSequenceSize) {
        wire::Reader a(cpf.address.data), d(cpf.data.data);
        const uint32_t id = a.u32();
        const uint16_t seq = d.u16();
        return " conn=" + Hex(id, 8) + " seq=" + std::to_string(seq) + mr(d.here(), d.remaining());
    }
    return " items=" + Hex(cpf.address.type, 4) + "," + Hex(cpf.data.type, 4) +
           mr(cpf.data.data.data(), cpf.data.data.size());
}

} // namespace

std::string Hex(uint32_t v, int width) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%0*X", width, v);
    return b;
}

const char *CommandName(uint16_t command) {
    switch (Command(command)) {
    case Command::Nop: return "Nop";
    case Command::ListServices: return "ListServices";
    case Command::ListIdentity: return "ListIdentity";
    case Command::ListInterfaces: return "ListInterfaces";
    case Command::RegisterSession: return "RegisterSession";
    case Command::UnRegisterSession: return "UnRegisterSession";
    case Command::SendRRData: return "SendRRData";
    case Command::SendUnitData: return "SendUnitData";
    }
    return "Command";
}

std::string DescribeRequest(const Header &h, const std::vector<uint8_t> &body) {
    std::string text = std::string(CommandName(h.command)) + " cmd=" + Hex(h.command, 4) +
                       " session=" + Hex(h.session, 8) + " len=" + std::to_string(h.length);
    if (h.Is(Command::SendRRData) || h.Is(Command::SendUnitData)) {
        if (const auto cpf = ParseCpf(body)) return text + DescribeCpf(*cpf, false);
    }
    if (body.empty() || h.Is(Command::RegisterSession)) return text;
    return text + " body=[" + HexBytes(body.data(), body.size(), 16) + "]";
}

std::string DescribeReply(const std::vector<uint8_t> &message) {
    const Header r = ParseHeader(message.data());
    std::string text = std::string(CommandName(r.command)) + " session=" + Hex(r.session, 8) +
                       " status=" + Hex(r.status, 4) + " len=" + std::to_string(r.length);
    if (r.status != uint32_t(EncapStatus::Success)) return text;
    if (!r.Is(Command::SendRRData) && !r.Is(Command::SendUnitData)) return text;
    const auto cpf = ParseCpf(std::vector<uint8_t>(message.begin() + kHeaderSize, message.end()));
    return cpf ? text + DescribeCpf(*cpf, true) : text;
}

} // namespace plc::sim
