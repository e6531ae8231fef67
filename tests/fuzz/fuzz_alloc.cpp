// Large allocations of the fuzz programs (linked with --wrap=vekMalloc and
// --wrap=vekFree). The KD build takes its working storage in 16 MB blocks;
// under AddressSanitizer every fresh block costs an mmap, page faults and a
// shadow fill, which held the scene fuzzer to a few hundred runs a second.
// Blocks of 1 MiB and more therefore come from mappings kept between runs,
// placed so that the block ends within 64 bytes of an inaccessible page (the
// few slack bytes are poisoned for AddressSanitizer): an overrun still
// faults. Smaller requests go to the real vekMalloc and AddressSanitizer.
#include <sanitizer/asan_interface.h>

#include <cstdint>
#include <map>

#include "fuzz_util.h"

extern "C" void* __real_vekMalloc(int numBytes);
extern "C" void __real_vekFree(void* ptr);

namespace {

constexpr int kLarge = 1 << 20;

std::map<void*, fz::Pool::Map>& ownLive() {
    static std::map<void*, fz::Pool::Map> live;
    return live;
}

}  // namespace

extern "C" void* __wrap_vekMalloc(int numBytes) {
    if (numBytes < kLarge) return __real_vekMalloc(numBytes);
    fz::Pool::Map m = fz::Pool::get().take(static_cast<std::size_t>(numBytes) + 64);
    std::uint8_t* end = m.data + m.bytes;
    auto* p = reinterpret_cast<std::uint8_t*>(reinterpret_cast<std::uintptr_t>(end - numBytes) & ~std::uintptr_t(63));
    ASAN_UNPOISON_MEMORY_REGION(p, static_cast<std::size_t>(numBytes));
    ASAN_POISON_MEMORY_REGION(p + numBytes, static_cast<std::size_t>(end - p - numBytes));
    ownLive()[p] = m;
    return p;
}

extern "C" void __wrap_vekFree(void* ptr) {
    auto it = ownLive().find(ptr);
    if (it == ownLive().end()) {
        __real_vekFree(ptr);
        return;
    }
    fz::Pool::get().give(it->second);
    ownLive().erase(it);
}
