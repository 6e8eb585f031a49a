#pragma once

// Counts the process's heap allocations (the malloc family, which operator new and Qt's
// containers end up in) for benchmarks that report allocations per frame or per step.
// Linking kest_bench_alloccount replaces malloc and friends for the whole program.
namespace AllocCount {

// Allocations counted so far, by every thread.
long count();

// Counting is on from the start; a benchmark turns it off around work it does not measure.
void setCounting(bool on);

// False where the replacement is not linked in (sanitizer builds bring their own allocator),
// or where an allocation it should see went past it.
bool works();

} // namespace AllocCount
