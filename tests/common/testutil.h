// Test helpers shared by every family: buffers placed at chosen offsets from a
// 16-byte boundary, bit-exact comparisons, the offset runner that proves the
// vector and scalar paths agree, and canaries that prove a failing call
// wrote nothing.
#ifndef VEKR_TESTS_TESTUTIL_H
#define VEKR_TESTS_TESTUTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace vt {

// An array of n elements whose first element lies `offsetBytes` past a 16-byte
// boundary (offset 0: aligned; 4 or 8: the scalar path of a vector operation).
template <class T>
class Buf {
public:
    Buf() = default;
    explicit Buf(std::size_t n, std::size_t offsetBytes = 0) { reset(n, offsetBytes); }
    Buf(const std::vector<T>& values, std::size_t offsetBytes) {
        reset(values.size(), offsetBytes);
        if (!values.empty()) std::memcpy(data(), values.data(), values.size() * sizeof(T));
    }
    Buf(const Buf& o) { *this = o; }
    Buf& operator=(const Buf& o) {
        if (this != &o) {
            reset(o.n_, o.offset_);
            if (o.n_) std::memcpy(data(), o.data(), o.n_ * sizeof(T));
        }
        return *this;
    }
    void reset(std::size_t n, std::size_t offsetBytes) {
        n_ = n;
        offset_ = offsetBytes;
        raw_.assign(n * sizeof(T) + offsetBytes + 64, 0);
        std::uintptr_t base = reinterpret_cast<std::uintptr_t>(raw_.data());
        std::uintptr_t aligned = (base + 15) & ~std::uintptr_t(15);
        start_ = static_cast<std::size_t>(aligned - base) + offsetBytes;
    }
    T* data() { return reinterpret_cast<T*>(raw_.data() + start_); }
    const T* data() const { return reinterpret_cast<const T*>(raw_.data() + start_); }
    T& operator[](std::size_t i) { return data()[i]; }
    const T& operator[](std::size_t i) const { return data()[i]; }
    std::size_t size() const { return n_; }
    std::size_t offset() const { return offset_; }
    std::vector<T> vec() const { return std::vector<T>(data(), data() + n_); }
    // The bytes of the elements (for bit-exact comparisons).
    std::vector<std::uint8_t> bytes() const {
        const std::uint8_t* p = reinterpret_cast<const std::uint8_t*>(data());
        return std::vector<std::uint8_t>(p, p + n_ * sizeof(T));
    }
    void fill(const T& v) {
        for (std::size_t i = 0; i < n_; ++i) data()[i] = v;
    }

private:
    std::vector<std::uint8_t> raw_;
    std::size_t n_ = 0, offset_ = 0, start_ = 0;
};

// Three planes (a P3 operand) placed at the same offset; ptrs() gives the
// pointer array that P3 functions take.
template <class T>
struct Planes {
    Buf<T> p[3];
    T* ptr[3] = {nullptr, nullptr, nullptr};
    Planes() = default;
    Planes(std::size_t n, std::size_t offsetBytes) { reset(n, offsetBytes); }
    Planes(const Planes& o) { *this = o; }
    Planes& operator=(const Planes& o) {
        for (int c = 0; c < 3; ++c) p[c] = o.p[c];
        for (int c = 0; c < 3; ++c) ptr[c] = p[c].data();
        return *this;
    }
    void reset(std::size_t n, std::size_t offsetBytes) {
        for (int c = 0; c < 3; ++c) {
            p[c].reset(n, offsetBytes);
            ptr[c] = p[c].data();
        }
    }
    T** ptrs() { return ptr; }
    const T* const* cptrs() const { return ptr; }
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out;
        for (int c = 0; c < 3; ++c) {
            auto b = p[c].bytes();
            out.insert(out.end(), b.begin(), b.end());
        }
        return out;
    }
};

// Bit patterns of floats and doubles, for exact comparisons and messages.
inline std::uint32_t bits(float f) {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}
inline std::uint64_t bits(double d) {
    std::uint64_t u;
    std::memcpy(&u, &d, 8);
    return u;
}
inline float fromBits(std::uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// Succeeds when the two arrays hold the same bit patterns; otherwise names the
// first differing element and both patterns.
template <class T>
::testing::AssertionResult SameBits(const T* a, const T* b, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        if (std::memcmp(&a[i], &b[i], sizeof(T)) != 0) {
            std::string ha, hb;
            char tmp[8];
            const unsigned char* pa = reinterpret_cast<const unsigned char*>(&a[i]);
            const unsigned char* pb = reinterpret_cast<const unsigned char*>(&b[i]);
            for (std::size_t k = sizeof(T); k-- > 0;) {
                std::snprintf(tmp, sizeof tmp, "%02x", pa[k]);
                ha += tmp;
                std::snprintf(tmp, sizeof tmp, "%02x", pb[k]);
                hb += tmp;
            }
            return ::testing::AssertionFailure()
                   << "element " << i << " of " << n << " differs: 0x" << ha << " vs 0x" << hb;
        }
    }
    return ::testing::AssertionSuccess();
}
template <class T>
::testing::AssertionResult SameBits(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size())
        return ::testing::AssertionFailure() << "sizes differ: " << a.size() << " vs " << b.size();
    return SameBits(a.data(), b.data(), a.size());
}

// The path-agreement runner. `run(offsetBytes)` places every array of the
// operation `offsetBytes` past a 16-byte boundary, runs the operation and
// returns the bytes of all its outputs (and its status, if it wants them
// compared too). The outputs at offsets 4 and 8 (scalar path) must equal the
// output at offset 0 (vector path) bit for bit.
inline ::testing::AssertionResult SameAcrossOffsets(
    const std::function<std::vector<std::uint8_t>(std::size_t offsetBytes)>& run,
    std::initializer_list<std::size_t> offsets = {4, 8}) {
    const std::vector<std::uint8_t> ref = run(0);
    for (std::size_t off : offsets) {
        const std::vector<std::uint8_t> got = run(off);
        auto r = SameBits(ref, got);
        if (!r) return ::testing::AssertionFailure() << "offset " << off << ": " << r.message();
    }
    return ::testing::AssertionSuccess();
}

// Appends the bytes of a value or array to an output record (for the runner).
template <class T>
void appendBytes(std::vector<std::uint8_t>& out, const T* p, std::size_t n) {
    const std::uint8_t* b = reinterpret_cast<const std::uint8_t*>(p);
    out.insert(out.end(), b, b + n * sizeof(T));
}

// Canaries: fill outputs with a recognisable pattern before a call that must
// fail, and check afterwards that not one byte changed.
constexpr std::uint8_t kCanaryByte = 0xA5;
template <class T>
void fillCanary(T* p, std::size_t n) {
    std::memset(static_cast<void*>(p), kCanaryByte, n * sizeof(T));
}
template <class T>
::testing::AssertionResult CanaryIntact(const T* p, std::size_t n) {
    const std::uint8_t* b = reinterpret_cast<const std::uint8_t*>(p);
    for (std::size_t i = 0; i < n * sizeof(T); ++i)
        if (b[i] != kCanaryByte)
            return ::testing::AssertionFailure() << "byte " << i << " was written (0x" << std::hex
                                                 << int(b[i]) << ")";
    return ::testing::AssertionSuccess();
}
template <class T>
void fillCanary(Buf<T>& b) {
    fillCanary(b.data(), b.size());
}
template <class T>
::testing::AssertionResult CanaryIntact(const Buf<T>& b) {
    return CanaryIntact(b.data(), b.size());
}

// A small deterministic generator (tests must not depend on the standard
// library's distributions, which differ between implementations).
class Rng {
public:
    explicit Rng(std::uint64_t seed) : s_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    std::uint32_t next() {
        s_ ^= s_ << 13;
        s_ ^= s_ >> 7;
        s_ ^= s_ << 17;
        return static_cast<std::uint32_t>(s_ >> 16);
    }
    // Uniform in [lo, hi).
    float uniform(float lo, float hi) { return lo + (hi - lo) * (next() >> 8) * (1.0f / 16777216.0f); }
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint32_t>(n)); }

private:
    std::uint64_t s_;
};

}  // namespace vt

#endif  // VEKR_TESTS_TESTUTIL_H
