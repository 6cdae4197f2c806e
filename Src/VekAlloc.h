/*
 * VekAlloc.h - standard-container allocators over the library's heaps
 * (internal). HeapAllocator allocates through the tracked heap, so the
 * blocks are counted and reported; AlAllocator through the OS layer, for
 * the bookkeeping of the monitors themselves. Both throw std::bad_alloc on
 * failure as the containers require; callers catch it at the C boundary.
 */
#ifndef VEK_ALLOC_H
#define VEK_ALLOC_H

#include <cstddef>
#include <new>
#include <string>
#include "AlOs.h"
#include "MemUtil.h"

namespace vek {

template <class T, void* (*Alloc)(size_t), void (*Free)(void*)>
struct BasicAllocator {
    using value_type = T;
    BasicAllocator() noexcept = default;
    template <class U>
    BasicAllocator(const BasicAllocator<U, Alloc, Free>&) noexcept {}
    template <class U>
    struct rebind {
        using other = BasicAllocator<U, Alloc, Free>;
    };
    T* allocate(size_t n) {
        void* p = Alloc(n * sizeof(T));
        if (!p) {
            throw std::bad_alloc();
        }
        return (T*)p;
    }
    void deallocate(T* p, size_t) noexcept { Free(p); }
    template <class U>
    bool operator==(const BasicAllocator<U, Alloc, Free>&) const noexcept {
        return true;
    }
};

template <class T>
using AlAllocator = BasicAllocator<T, al_malloc, al_free>;
template <class T>
using HeapAllocator = BasicAllocator<T, vek_malloc__, vek_free__>;

/* A string whose block is counted like any other of the library's. */
using VString = std::basic_string<char, std::char_traits<char>, HeapAllocator<char>>;

} // namespace vek

#endif /* VEK_ALLOC_H */
