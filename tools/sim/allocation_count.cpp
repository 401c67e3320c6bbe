#include "allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local bool t_counting = false;
std::atomic<uint64_t> g_allocations{0};

void* counted_malloc(size_t size) {
    if (t_counting) g_allocations.fetch_add(1, std::memory_order_relaxed);
    return malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace kivhal {
namespace test {

void count_allocations_on_this_thread(bool on) {
    t_counting = on;
}
uint64_t counted_allocations() {
    return g_allocations.load();
}

}  // namespace test
}  // namespace kivhal

// GCC takes free() inside the replacement operator delete for a mismatch; it
// is the matching call for the malloc above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
    if (void* p = counted_malloc(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return counted_malloc(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return counted_malloc(size);
}
void operator delete(void* p) noexcept {
    free(p);
}
void operator delete[](void* p) noexcept {
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    free(p);
}
void operator delete[](void* p, size_t) noexcept {
    free(p);
}
#pragma GCC diagnostic pop
