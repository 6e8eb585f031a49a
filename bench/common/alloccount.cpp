#include "alloccount.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {
std::atomic<bool> counting{true};
std::atomic<long> allocations{0};

inline void countAllocation()
{
    if (counting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr bool kReplaced = true;

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);

void *malloc(size_t n) noexcept
{
    countAllocation();
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size) noexcept
{
    countAllocation();
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n) noexcept
{
    countAllocation();
    return __libc_realloc(p, n);
}
void *memalign(size_t alignment, size_t n) noexcept
{
    countAllocation();
    return __libc_memalign(alignment, n);
}
void *aligned_alloc(size_t alignment, size_t n) noexcept
{
    countAllocation();
    return __libc_memalign(alignment, n);
}
int posix_memalign(void **out, size_t alignment, size_t n) noexcept
{
    countAllocation();
    void *p = __libc_memalign(alignment, n);
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}
void free(void *p) noexcept
{
    __libc_free(p);
}
}
#else
constexpr bool kReplaced = false;
#endif

namespace AllocCount {

long count()
{
    return allocations.load(std::memory_order_relaxed);
}

void setCounting(bool on)
{
    counting.store(on, std::memory_order_relaxed);
}

bool works()
{
    if (!kReplaced)
        return false;
    const bool was = counting.exchange(true);
    const long before = count();
    int *volatile p = new int(1);
    delete p;
    const bool seen = count() > before;
    counting.store(was);
    return seen;
}

} // namespace AllocCount
