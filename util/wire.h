// Bounds-checked little-endian reader and writer: every wire structure of the
// driver and of the simulator is encoded and decoded through these two classes,
// so that no announced length can make the code touch memory outside a buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace plc::wire {

// Views of bytes owned elsewhere; they never own or outlive their buffer.
struct Bytes {
    const uint8_t *data = nullptr;
    size_t size = 0;
};
struct MutableBytes {
    uint8_t *data = nullptr;
    size_t size = 0;
};

// Writes into a caller-owned buffer of fixed capacity. A write that does not fit
// writes nothing and marks the writer failed; later writes are refused as well,
// so one check of ok() at the end covers a whole message.
class Writer {
public:
    Writer(uint8_t *buffer, size_t capacity) : buf_(buffer), cap_(capacity) {}
    explicit Writer(MutableBytes b) : buf_(b.data), cap_(b.size) {}

    bool ok() const { return ok_; }
    size_t size() const { return pos_; }
    size_t capacity() const { return cap_; }
    size_t remaining() const { return cap_ - pos_; }
    uint8_t *data() { return buf_; }

    Writer &u8(uint8_t v) { return put(&v, 1); }
    Writer &u16(uint16_t v) {
        const uint8_t b[2] = {uint8_t(v), uint8_t(v >> 8)};
        return put(b, 2);
    }
    Writer &u24(uint32_t v) {
        const uint8_t b[3] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16)};
        return put(b, 3);
    }
    Writer &u32(uint32_t v) {
        const uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
        return put(b, 4);
    }
    Writer &u64(uint64_t v) {
        u32(uint32_t(v));
        return u32(uint32_t(v >> 32));
    }
    Writer &bytes(const void *src, size_t n) { return put(src, n); }
    Writer &text(std::string_view s) { return put(s.data(), s.size()); }
    Writer &zeros(size_t n) {
        if (!reserve(n)) return *this;
        std::memset(buf_ + pos_, 0, n);
        pos_ += n;
        return *this;
    }
    // Pads with one zero byte when the size so far is odd.
    Writer &pad_even() { return (pos_ & 1u) ? u8(0) : *this; }

    // Overwrites an already written field; refused when it lies beyond size().
    bool patch_u8(size_t at, uint8_t v) { return patch(at, &v, 1); }
    bool patch_u16(size_t at, uint16_t v) {
        const uint8_t b[2] = {uint8_t(v), uint8_t(v >> 8)};
        return patch(at, b, 2);
    }
    bool patch_u32(size_t at, uint32_t v) {
        const uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
        return patch(at, b, 4);
    }

private:
    bool reserve(size_t n) {
        if (!ok_ || n > cap_ - pos_) {
            ok_ = false;
            return false;
        }
        return true;
    }
    Writer &put(const void *src, size_t n) {
        if (!reserve(n)) return *this;
        if (n) std::memcpy(buf_ + pos_, src, n);
        pos_ += n;
        return *this;
    }
    bool patch(size_t at, const void *src, size_t n) {
        if (at > pos_ || n > pos_ - at) return false;
        std::memcpy(buf_ + at, src, n);
        return true;
    }

    uint8_t *buf_;
    size_t cap_;
    size_t pos_ = 0;
    bool ok_ = true;
};

// A Writer that owns a growable byte vector (for messages built off the hot path).
class VecWriter {
public:
    explicit VecWriter(size_t reserve_bytes = 0) { v_.reserve(reserve_bytes); }
    VecWriter &u8(uint8_t v) {
        v_.push_back(v);
        return *this;
    }
    VecWriter &u16(uint16_t v) { return u8(uint8_t(v)).u8(uint8_t(v >> 8)); }
    VecWriter &u32(uint32_t v) { return u16(uint16_t(v)).u16(uint16_t(v >> 16)); }
    VecWriter &u64(uint64_t v) { return u32(uint32_t(v)).u32(uint32_t(v >> 32)); }
    VecWriter &bytes(const void *src, size_t n) {
        const auto *p = static_cast<const uint8_t *>(src);
        v_.insert(v_.end(), p, p + n);
        return *this;
    }
    VecWriter &text(std::string_view s) { return bytes(s.data(), s.size()); }
    VecWriter &zeros(size_t n) {
        v_.insert(v_.end(), n, 0);
        return *this;
    }
    VecWriter &pad_even() { return (v_.size() & 1u) ? u8(0) : *this; }
    bool patch_u16(size_t at, uint16_t v) {
        if (at + 2 > v_.size()) return false;
        v_[at] = uint8_t(v);
        v_[at + 1] = uint8_t(v >> 8);
        return true;
    }
    size_t size() const { return v_.size(); }
    std::vector<uint8_t> &vec() { return v_; }
    std::vector<uint8_t> take() { return std::move(v_); }

private:
    std::vector<uint8_t> v_;
};

// Reads from a byte range. A read past the end returns 0 (or nothing) and marks
// the reader failed; callers check ok() once after reading a structure.
class Reader {
public:
    Reader(const uint8_t *data, size_t size) : d_(data), n_(size) {}
    explicit Reader(const std::vector<uint8_t> &v) : d_(v.data()), n_(v.size()) {}
    explicit Reader(Bytes b) : d_(b.data), n_(b.size) {}

    bool ok() const { return ok_; }
    size_t pos() const { return pos_; }
    size_t size() const { return n_; }
    size_t remaining() const { return n_ - pos_; }
    const uint8_t *data() const { return d_; }
    const uint8_t *here() const { return d_ + pos_; }

    uint8_t u8() {
        uint8_t v = 0;
        get(&v, 1);
        return v;
    }
    uint16_t u16() {
        uint8_t b[2] = {};
        get(b, 2);
        return uint16_t(b[0] | (b[1] << 8));
    }
    uint32_t u24() {
        uint8_t b[3] = {};
        get(b, 3);
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16;
    }
    uint32_t u32() {
        uint8_t b[4] = {};
        get(b, 4);
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    }
    uint64_t u64() {
        const uint64_t lo = u32();
        return lo | uint64_t(u32()) << 32;
    }
    bool bytes(void *dst, size_t n) { return get(dst, n); }
    bool skip(size_t n) {
        if (!ok_ || n > n_ - pos_) return fail();
        pos_ += n;
        return true;
    }
    bool seek(size_t at) {
        if (!ok_ || at > n_) return fail();
        pos_ = at;
        return true;
    }
    // A sub-reader over the next n bytes; the parent moves past them.
    Reader sub(size_t n) {
        if (!ok_ || n > n_ - pos_) {
            fail();
            Reader r(d_, 0);
            r.ok_ = false;
            return r;
        }
        Reader r(d_ + pos_, n);
        pos_ += n;
        return r;
    }

    // Random access without moving the cursor.
    std::optional<uint8_t> u8_at(size_t at) const {
        if (at >= n_) return std::nullopt;
        return d_[at];
    }
    std::optional<uint16_t> u16_at(size_t at) const {
        if (at > n_ || 2 > n_ - at) return std::nullopt;
        return uint16_t(d_[at] | (d_[at + 1] << 8));
    }
    std::optional<uint32_t> u32_at(size_t at) const {
        if (at > n_ || 4 > n_ - at) return std::nullopt;
        return uint32_t(d_[at]) | uint32_t(d_[at + 1]) << 8 | uint32_t(d_[at + 2]) << 16 |
               uint32_t(d_[at + 3]) << 24;
    }
    bool has(size_t at, size_t n) const { return at <= n_ && n <= n_ - at; }

private:
    bool fail() {
        ok_ = false;
        return false;
    }
    bool get(void *dst, size_t n) {
        if (!ok_ || n > n_ - pos_) {
            std::memset(dst, 0, n);
            return fail();
        }
        if (n) std::memcpy(dst, d_ + pos_, n);
        pos_ += n;
        return true;
    }

    const uint8_t *d_;
    size_t n_;
    size_t pos_ = 0;
    bool ok_ = true;
};

} // namespace plc::wire
