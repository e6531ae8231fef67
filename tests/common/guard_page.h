// Arrays placed against an inaccessible page, so that a load or store one byte
// past either end of the array faults at once instead of reading or scribbling
// on a neighbour. Used to prove that vector paths never touch bytes outside
// the arrays they are given, whatever the count and the alignment.
//
// Placement: with GuardSide::After the array ends as close to the guard page
// as its requested alignment allows (exactly at it when the byte count is a
// multiple of 16 and the offset is 0, which is what every vector path needs);
// with GuardSide::Before the array starts `offsetBytes` after the guard page.
// The few bytes between the array and the guard page (the slack that an
// alignment forces) are filled with a canary and checked by slackIntact(), so
// a write there is caught as well.
#ifndef VEKR_TESTS_GUARD_PAGE_H
#define VEKR_TESTS_GUARD_PAGE_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace vt {

enum class GuardSide { After, Before };

// One mapping: [data pages][guard page] (After) or [guard page][data pages] (Before).
class GuardedBytes {
public:
    static constexpr unsigned char kSlackCanary = 0xA5;

    GuardedBytes() = default;
    GuardedBytes(std::size_t nBytes, std::size_t offsetBytes, GuardSide side) { reset(nBytes, offsetBytes, side); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    GuardedBytes(GuardedBytes&& o) noexcept { *this = std::move(o); }
    GuardedBytes& operator=(GuardedBytes&& o) noexcept {
        if (this != &o) {
            release();
            std::swap(map_, o.map_);
            std::swap(mapBytes_, o.mapBytes_);
            std::swap(lo_, o.lo_);
            std::swap(hi_, o.hi_);
            std::swap(start_, o.start_);
            std::swap(n_, o.n_);
        }
        return *this;
    }
    ~GuardedBytes() { release(); }

    void reset(std::size_t nBytes, std::size_t offsetBytes, GuardSide side) {
        release();
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t dataPages = (nBytes + 16 + page - 1) / page;
        mapBytes_ = (dataPages + 1) * page;
        void* m = mmap(nullptr, mapBytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) std::abort();
        map_ = static_cast<unsigned char*>(m);
        n_ = nBytes;
        offsetBytes &= 15;
        if (side == GuardSide::After) {
            // Data pages first, guard page last; the array ends at or just below it.
            unsigned char* guard = map_ + dataPages * page;
            if (mprotect(guard, page, PROT_NONE) != 0) std::abort();
            std::uintptr_t end = reinterpret_cast<std::uintptr_t>(guard);
            std::uintptr_t s = end - nBytes;
            // Step down to the nearest start with the requested offset from 16.
            s -= (s - offsetBytes) & 15;
            start_ = reinterpret_cast<unsigned char*>(s);
            lo_ = map_;
            hi_ = guard;
        } else {
            // Guard page first; the array starts offsetBytes after it.
            if (mprotect(map_, page, PROT_NONE) != 0) std::abort();
            start_ = map_ + page + offsetBytes;
            lo_ = map_ + page;
            hi_ = map_ + mapBytes_;
        }
        std::memset(lo_, kSlackCanary, static_cast<std::size_t>(hi_ - lo_));
    }

    unsigned char* data() { return start_; }
    const unsigned char* data() const { return start_; }
    std::size_t size() const { return n_; }

    // True when every accessible byte outside the array still holds the canary.
    bool slackIntact() const {
        for (const unsigned char* p = lo_; p < start_; ++p)
            if (*p != kSlackCanary) return false;
        for (const unsigned char* p = start_ + n_; p < hi_; ++p)
            if (*p != kSlackCanary) return false;
        return true;
    }

private:
    void release() {
        if (map_) munmap(map_, mapBytes_);
        map_ = nullptr;
    }
    unsigned char* map_ = nullptr;
    std::size_t mapBytes_ = 0;
    unsigned char* lo_ = nullptr;  // accessible bytes: [lo_, hi_)
    unsigned char* hi_ = nullptr;
    unsigned char* start_ = nullptr;
    std::size_t n_ = 0;
};

// A typed array of n elements against a guard page. offsetBytes is the
// array's distance past a 16-byte boundary (0: aligned, 4/8/12: misaligned).
template <class T>
class Guarded {
public:
    Guarded() = default;
    Guarded(std::size_t n, std::size_t offsetBytes = 0, GuardSide side = GuardSide::After)
        : bytes_(n * sizeof(T), offsetBytes, side) {}
    Guarded(const std::vector<T>& values, std::size_t offsetBytes = 0, GuardSide side = GuardSide::After)
        : bytes_(values.size() * sizeof(T), offsetBytes, side) {
        if (!values.empty()) std::memcpy(data(), values.data(), values.size() * sizeof(T));
    }
    T* data() { return reinterpret_cast<T*>(bytes_.data()); }
    const T* data() const { return reinterpret_cast<const T*>(bytes_.data()); }
    T& operator[](std::size_t i) { return data()[i]; }
    const T& operator[](std::size_t i) const { return data()[i]; }
    std::size_t size() const { return bytes_.size() / sizeof(T); }
    std::vector<T> vec() const { return std::vector<T>(data(), data() + size()); }
    std::vector<std::uint8_t> bytes() const {
        return std::vector<std::uint8_t>(bytes_.data(), bytes_.data() + bytes_.size());
    }
    void fill(const T& v) {
        for (std::size_t i = 0; i < size(); ++i) data()[i] = v;
    }
    bool slackIntact() const { return bytes_.slackIntact(); }

private:
    GuardedBytes bytes_;
};

// Three guarded planes (a P3 operand) with the same placement.
template <class T>
struct GuardedPlanes {
    Guarded<T> p[3];
    T* ptr[3] = {nullptr, nullptr, nullptr};
    GuardedPlanes() = default;
    GuardedPlanes(std::size_t n, std::size_t offsetBytes = 0, GuardSide side = GuardSide::After) {
        for (int c = 0; c < 3; ++c) {
            p[c] = Guarded<T>(n, offsetBytes, side);
            ptr[c] = p[c].data();
        }
    }
    GuardedPlanes(GuardedPlanes&& o) noexcept { *this = std::move(o); }
    GuardedPlanes& operator=(GuardedPlanes&& o) noexcept {
        for (int c = 0; c < 3; ++c) {
            p[c] = std::move(o.p[c]);
            ptr[c] = p[c].data();
        }
        return *this;
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
    bool slackIntact() const { return p[0].slackIntact() && p[1].slackIntact() && p[2].slackIntact(); }
};

}  // namespace vt

#endif  // VEKR_TESTS_GUARD_PAGE_H
