#pragma once

// Counts heap allocations made on the threads that ask for it, for the checks
// that hold a path to zero allocations. Using it links in replacements of the
// global operator new and delete.

#include <cstdint>

namespace kivhal {
namespace test {

// From now on, allocations on the calling thread are counted (or not).
void count_allocations_on_this_thread(bool on);
// Allocations counted so far, on every thread that asked.
uint64_t counted_allocations();

}  // namespace test
}  // namespace kivhal
