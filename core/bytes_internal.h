// Little-endian bytes: unaligned loads and stores, and a bounded reader and writer that remember a failure, so that
// a codec states its fields in order and asks once at the end.
#ifndef TARN_BYTES_INTERNAL_H
#define TARN_BYTES_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

inline void put_u16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put_u32(uint8_t *p, uint32_t v) {
    put_u16(p, static_cast<uint16_t>(v));
    put_u16(p + 2, static_cast<uint16_t>(v >> 16));
}
inline void put_u64(uint8_t *p, uint64_t v) {
    put_u32(p, static_cast<uint32_t>(v));
    put_u32(p + 4, static_cast<uint32_t>(v >> 32));
}
inline uint16_t get_u16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
inline uint32_t get_u32(const uint8_t *p) {
    return static_cast<uint32_t>(get_u16(p)) | static_cast<uint32_t>(get_u16(p + 2)) << 16;
}
inline uint64_t get_u64(const uint8_t *p) {
    return static_cast<uint64_t>(get_u32(p)) | static_cast<uint64_t>(get_u32(p + 4)) << 32;
}

// Writes fields one behind the other. A field that doesn't fit is skipped and marks the writer as failed.
class byte_writer {
public:
    byte_writer(uint8_t *out, size_t capacity) : out_(out), capacity_(capacity) {}

    void bytes(const void *from, size_t size) {
        if (uint8_t *p = room(size)) memcpy(p, from, size);
    }
    void u8(uint8_t v) { bytes(&v, 1); }
    void u16(uint16_t v) {
        if (uint8_t *p = room(2)) put_u16(p, v);
    }
    void u32(uint32_t v) {
        if (uint8_t *p = room(4)) put_u32(p, v);
    }
    void u64(uint64_t v) {
        if (uint8_t *p = room(8)) put_u64(p, v);
    }
    bool ok() const { return ok_; }
    // Bytes written, or 0 if anything didn't fit.
    size_t size() const { return ok_ ? at_ : 0; }

private:
    uint8_t *room(size_t size) {
        if (size == 0) return nullptr;
        if (size > capacity_ - at_) {
            ok_ = false;
            return nullptr;
        }
        uint8_t *p = out_ + at_;
        at_ += size;
        return p;
    }
    uint8_t *out_;
    size_t capacity_;
    size_t at_ = 0;
    bool ok_ = true;
};

// Reads fields one behind the other. A field beyond the end reads as zero and marks the reader as failed.
class byte_reader {
public:
    byte_reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    void bytes(void *to, size_t size) {
        if (const uint8_t *p = take(size)) {
            memcpy(to, p, size);
        } else {
            memset(to, 0, size);
        }
    }
    uint8_t u8() {
        const uint8_t *p = take(1);
        return p ? *p : uint8_t{0};
    }
    uint16_t u16() {
        const uint8_t *p = take(2);
        return p ? get_u16(p) : uint16_t{0};
    }
    uint32_t u32() {
        const uint8_t *p = take(4);
        return p ? get_u32(p) : 0;
    }
    uint64_t u64() {
        const uint8_t *p = take(8);
        return p ? get_u64(p) : 0;
    }
    void fail() { ok_ = false; }
    bool ok() const { return ok_; }
    // True when every field was there and nothing is left.
    bool finished() const { return ok_ && at_ == size_; }
    const uint8_t *here() const { return data_ + at_; }
    size_t left() const { return size_ - at_; }

private:
    const uint8_t *take(size_t size) {
        if (size > size_ - at_) {
            ok_ = false;
            return nullptr;
        }
        const uint8_t *p = data_ + at_;
        at_ += size;
        return p;
    }
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
    bool ok_ = true;
};

#endif
