// Shared pieces of the fuzz harnesses: a reader that turns the fuzzer's bytes
// into counts, codes and hostile floats; arrays placed against inaccessible
// pages (so a stray vector load or store faults even without a sanitizer);
// canary bytes around every array; and the check macro that stops the run.
#ifndef VEKR_FUZZ_UTIL_H
#define VEKR_FUZZ_UTIL_H

#include <sys/mman.h>
#include <unistd.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

// A failed property ends the run with a message; libFuzzer keeps the input.
#define FUZZ_CHECK(cond, ...)                                                   \
    do {                                                                        \
        if (!(cond)) {                                                          \
            std::fprintf(stderr, "%s:%d: check failed: %s\n  ", __FILE__,       \
                         __LINE__, #cond);                                      \
            std::fprintf(stderr, __VA_ARGS__);                                  \
            std::fprintf(stderr, "\n");                                         \
            std::abort();                                                       \
        }                                                                       \
    } while (0)

namespace fz {

// Consumes the input front to back; once it runs dry every read gives zero, so
// short inputs still describe a complete call.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : p_(data), n_(size) {}

    std::uint8_t u8() {
        if (n_ == 0) return 0;
        --n_;
        return *p_++;
    }
    std::uint16_t u16() { return static_cast<std::uint16_t>(u8() | (u8() << 8)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(u16()) | (static_cast<std::uint32_t>(u16()) << 16); }
    std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
    bool bit() { return (u8() & 1) != 0; }
    // An integer in lo..hi (inclusive).
    int range(int lo, int hi) {
        unsigned span = static_cast<unsigned>(hi - lo) + 1u;
        unsigned v = span <= 256 ? u8() : u16();
        return lo + static_cast<int>(v % span);
    }
    template <class T, std::size_t N>
    T pick(const T (&table)[N]) { return table[u8() % N]; }

    // A count: mostly 0..maxCount, sometimes a hostile value.
    int count(int maxCount) {
        static const int kHostile[] = {0, -1, -3, -5, -4, INT_MIN, INT_MIN + 1, -2};
        std::uint8_t sel = u8();
        if (sel < 24) return kHostile[sel % 8];
        return range(0, maxCount);
    }

    // A float: small exact values, special values (NaN with payloads, ±inf,
    // denormals, 1e30, the extremes) or raw bit patterns.
    float f32() {
        static const float kSpecial[] = {
            0.0f, -0.0f, 1.0f, -1.0f, 0.5f, 2.0f,
            std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::quiet_NaN(),
            INFINITY, -INFINITY, 1e30f, -1e30f, FLT_MAX, -FLT_MAX, FLT_MIN, 1e-40f, -1e-40f,
            1e-7f, 1.1920929e-7f, 0.0017453292f};
        std::uint8_t sel = u8();
        if (sel < 64) return kSpecial[sel % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
        if (sel < 200) return static_cast<float>(static_cast<std::int8_t>(u8())) / 16.0f;
        std::uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
    double f64() {
        static const double kSpecial[] = {0.0, -0.0, 1.0, -1.0, 0.5, 2.0, 1e-300, 1e300,
                                          std::numeric_limits<double>::quiet_NaN(), INFINITY, -INFINITY,
                                          1e30, -1e30, 1e-11, DBL_MIN, 4.9e-324};
        std::uint8_t sel = u8();
        if (sel < 48) return kSpecial[sel % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
        if (sel < 220) return static_cast<double>(static_cast<std::int8_t>(u8())) / 16.0;
        std::uint64_t bits = static_cast<std::uint64_t>(u32()) | (static_cast<std::uint64_t>(u32()) << 32);
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
    }
    std::size_t remaining() const { return n_; }

private:
    const std::uint8_t* p_;
    std::size_t n_;
};

constexpr std::uint8_t kCanary = 0xA5;
constexpr std::size_t kCanaryBytes = 64;

// Where an array sits in its mapping: Tail ends on the byte before an
// inaccessible page; Head starts `offset` bytes after one (offset 0: right
// after it). Both keep kCanaryBytes of canary on the open side.
enum class Place { Tail, Head };

// Mappings are kept between runs (one free list per page count), so that a
// fuzz execution costs no system calls once the pool is warm.
class Pool {
public:
    static Pool& get() {
        static Pool pool;
        return pool;
    }
    struct Map {
        std::uint8_t* data;  // first accessible byte
        std::size_t bytes;   // accessible bytes (whole pages)
    };
    Map take(std::size_t bytes) {
        std::size_t page = pageSize();
        std::size_t pages = (bytes + page - 1) / page;
        if (pages == 0) pages = 1;
        if (pages < free_.size() && !free_[pages].empty()) {
            Map m = free_[pages].back();
            free_[pages].pop_back();
            return m;
        }
        std::size_t total = (pages + 2) * page;
        void* p = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        FUZZ_CHECK(p != MAP_FAILED, "mmap of %zu bytes failed", total);
        auto* base = static_cast<std::uint8_t*>(p);
        FUZZ_CHECK(mprotect(base, page, PROT_NONE) == 0, "mprotect");
        FUZZ_CHECK(mprotect(base + (pages + 1) * page, page, PROT_NONE) == 0, "mprotect");
        return Map{base + page, pages * page};
    }
    void give(Map m) {
        std::size_t pages = m.bytes / pageSize();
        if (pages >= free_.size()) free_.resize(pages + 1);
        free_[pages].push_back(m);
    }
    static std::size_t pageSize() {
        static const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        return page;
    }

private:
    std::vector<std::vector<Map>> free_;
};

// An array of n elements of T against a guard page, with canaries on its open
// side. Released to the pool when it goes out of scope.
template <class T>
class Guarded {
public:
    Guarded() = default;
    Guarded(std::size_t n, Place place, std::size_t offset = 0) { reset(n, place, offset); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() { release(); }

    void reset(std::size_t n, Place place, std::size_t offset = 0) {
        release();
        n_ = n;
        std::size_t bytes = n * sizeof(T);
        map_ = Pool::get().take(bytes + offset + kCanaryBytes);
        std::uint8_t* p = place == Place::Tail ? map_.data + map_.bytes - bytes : map_.data + offset;
        p_ = reinterpret_cast<T*>(p);
        // Canaries on up to kCanaryBytes either side (the rest of the
        // mapping is never looked at).
        lo_ = p - std::min<std::size_t>(kCanaryBytes, static_cast<std::size_t>(p - map_.data));
        hi_ = p + bytes + std::min<std::size_t>(kCanaryBytes, static_cast<std::size_t>(map_.data + map_.bytes - p - bytes));
        std::memset(lo_, kCanary, static_cast<std::size_t>(hi_ - lo_));
        live_ = true;
    }
    T* data() { return p_; }
    const T* data() const { return p_; }
    T& operator[](std::size_t i) { return p_[i]; }
    const T& operator[](std::size_t i) const { return p_[i]; }
    std::size_t size() const { return n_; }
    std::size_t bytes() const { return n_ * sizeof(T); }

    // True when every byte of the mapping outside the array still holds the
    // canary: nothing was written before or after it.
    bool canariesIntact() const {
        static const std::uint8_t kRef[kCanaryBytes] = {
#define VEKR_FUZZ_C8 kCanary, kCanary, kCanary, kCanary, kCanary, kCanary, kCanary, kCanary
            VEKR_FUZZ_C8, VEKR_FUZZ_C8, VEKR_FUZZ_C8, VEKR_FUZZ_C8,
            VEKR_FUZZ_C8, VEKR_FUZZ_C8, VEKR_FUZZ_C8, VEKR_FUZZ_C8};
#undef VEKR_FUZZ_C8
        const std::uint8_t* a = reinterpret_cast<const std::uint8_t*>(p_);
        return std::memcmp(lo_, kRef, static_cast<std::size_t>(a - lo_)) == 0 &&
               std::memcmp(a + bytes(), kRef, static_cast<std::size_t>(hi_ - a - bytes())) == 0;
    }

private:
    void release() {
        if (live_) Pool::get().give(map_);
        live_ = false;
    }
    Pool::Map map_{};
    T* p_ = nullptr;
    std::uint8_t* lo_ = nullptr;
    std::uint8_t* hi_ = nullptr;
    std::size_t n_ = 0;
    bool live_ = false;
};

// Bitwise equality of two arrays (NaN payloads and signed zeros included).
template <class T>
inline bool sameBits(const T* a, const T* b, std::size_t n) {
    return n == 0 || std::memcmp(a, b, n * sizeof(T)) == 0;
}

// The bytes of an array, for "nothing was written" checks.
template <class T>
inline std::vector<std::uint8_t> snapshot(const T* p, std::size_t n) {
    const auto* b = reinterpret_cast<const std::uint8_t*>(p);
    return std::vector<std::uint8_t>(b, b + n * sizeof(T));
}
template <class T>
inline bool unchanged(const T* p, const std::vector<std::uint8_t>& before) {
    return before.empty() || std::memcmp(p, before.data(), before.size()) == 0;
}

}  // namespace fz

#endif  // VEKR_FUZZ_UTIL_H
