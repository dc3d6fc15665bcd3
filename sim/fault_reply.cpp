#include "sim/fault_reply.h"

#include <algorithm>
#include <functional>

#include "sim/encap.h"
#include "sim/wire.h"

namespace plc::sim {

namespace {

constexpr size_t kLengthField = 2;
constexpr size_t kSessionField = 4;
constexpr size_t kSequenceSize = 2;
constexpr size_t kMrHeader = 4; // service, reserved, general status, additional size
constexpr size_t kAdditionalSizeField = 3;
constexpr uint8_t kOtherService = 0x01;

// A body longer than a message can announce is cut to what it can.
void SetBody(std::vector<uint8_t> &message, const std::vector<uint8_t> &body) {
    const size_t size = std::min(body.size(), kMaxBody);
    message.resize(kHeaderSize);
    message.insert(message.end(), body.begin(), body.begin() + long(size));
    wire::Writer(message.data() + kLengthField, 2).u16(uint16_t(size));
}

// Calls `edit` with the CPF of a SendRRData / SendUnitData reply and stores
// what it leaves; nothing for other replies.
void EditCpf(std::vector<uint8_t> &message, const std::function<void(Cpf &)> &edit) {
    const std::vector<uint8_t> body(message.begin() + kHeaderSize, message.end());
    auto cpf = ParseCpf(body);
    if (!cpf) return;
    edit(*cpf);
    SetBody(message, EncodeCpf(*cpf));
}

// The same for the message-router reply inside the data item.
void EditMr(std::vector<uint8_t> &message,
            const std::function<void(std::vector<uint8_t> &)> &edit) {
    EditCpf(message, [&](Cpf &cpf) {
        const size_t skip = cpf.data.Is(Item::ConnectedData) ? kSequenceSize : 0;
        if (cpf.data.data.size() < skip + kMrHeader) return;
        std::vector<uint8_t> mr(cpf.data.data.begin() + long(skip), cpf.data.data.end());
        edit(mr);
        cpf.data.data.resize(skip);
        cpf.data.data.insert(cpf.data.data.end(), mr.begin(), mr.end());
    });
}

void AddToField(uint8_t *at, size_t width, uint32_t delta) {
    wire::Reader in(at, width);
    const uint32_t v = width == 2 ? in.u16() : in.u32();
    wire::Writer out(at, width);
    width == 2 ? out.u16(uint16_t(v + delta)) : out.u32(v + delta);
}

void SetLength(const Fault &f, std::vector<uint8_t> &message) {
    const int64_t real = int64_t(message.size() - kHeaderSize);
    const int64_t lie =
        std::clamp<int64_t>(f.relative ? real + f.value : f.value, 0, int64_t(kMaxBody));
    wire::Writer(message.data() + kLengthField, 2).u16(uint16_t(lie));
}

// The reply service stays; status, additional status and data are replaced.
void ReplaceStatus(const Fault &f, std::vector<uint8_t> &mr) {
    wire::VecWriter out(kMrHeader + 2 * f.additional.size());
    out.u8(wire::Reader(mr).u8()).u8(0).u8(f.general).u8(uint8_t(f.additional.size()));
    for (const uint16_t word : f.additional) out.u16(word);
    mr = out.take();
}

// Response data bytes start after the additional status words.
void ChangeDataSize(const Fault &f, std::vector<uint8_t> &mr) {
    const size_t words = wire::Reader(mr).u8_at(kAdditionalSizeField).value_or(0);
    const size_t data_start = std::min(mr.size(), kMrHeader + 2 * words);
    const size_t n = std::min(size_t(f.value), kMaxBody);
    if (f.action == Action::MoreBytes)
        mr.insert(mr.end(), n, 0);
    else
        mr.resize(std::max(data_start, mr.size() - std::min(mr.size(), n)));
}

} // namespace

void RewriteReply(const Fault &f, std::vector<uint8_t> &message) {
    if (message.size() < kHeaderSize) return;
    switch (f.action) {
    case Action::Truncate: {
        const size_t body = message.size() - kHeaderSize;
        const size_t keep = f.value < 0 ? body / 2 : std::min<size_t>(body, size_t(f.value));
        SetBody(message, std::vector<uint8_t>(message.begin() + kHeaderSize,
                                              message.begin() + long(kHeaderSize + keep)));
        break;
    }
    case Action::Length: SetLength(f, message); break;
    case Action::WrongSession: AddToField(message.data() + kSessionField, 4, 1); break;
    case Action::WrongConnection:
        EditCpf(message, [](Cpf &cpf) {
            if (cpf.address.Is(Item::ConnectedAddress) && cpf.address.data.size() == 4)
                AddToField(cpf.address.data.data(), 4, 1);
        });
        break;
    case Action::WrongSequence:
        EditCpf(message, [](Cpf &cpf) {
            if (cpf.data.Is(Item::ConnectedData) && cpf.data.data.size() >= kSequenceSize)
                AddToField(cpf.data.data.data(), kSequenceSize, 1);
        });
        break;
    case Action::WrongService:
        EditMr(message, [](auto &mr) {
            wire::Writer(mr.data(), 1).u8(uint8_t(wire::Reader(mr).u8() ^ kOtherService));
        });
        break;
    case Action::Status: EditMr(message, [&](auto &mr) { ReplaceStatus(f, mr); }); break;
    case Action::FewerBytes:
    case Action::MoreBytes: EditMr(message, [&](auto &mr) { ChangeDataSize(f, mr); }); break;
    default: break;
    }
}

} // namespace plc::sim
