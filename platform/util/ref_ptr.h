// Intrusive reference counting: RCX_ptr_v4::ref_ptr and ThreadSafeRefBase.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "../tessera_export.h"

namespace RCX_ptr_v4 {

// An intrusive smart pointer. T provides addRef() and releaseRef(); the
// latter decides what happens when the count reaches zero (most types delete
// themselves, an image buffer may be handed to the tile cache instead).
template <class T>
class ref_ptr {
public:
    ref_ptr() noexcept = default;
    ref_ptr(T* p) noexcept : m_ptr(p) {  // NOLINT: implicit, like a raw pointer
        if (m_ptr) m_ptr->addRef();
    }
    ref_ptr(const ref_ptr& o) noexcept : ref_ptr(o.m_ptr) {}
    ref_ptr(ref_ptr&& o) noexcept : m_ptr(std::exchange(o.m_ptr, nullptr)) {}
    template <class U>
    ref_ptr(const ref_ptr<U>& o) noexcept : ref_ptr(o.get()) {}  // NOLINT: upcast
    ~ref_ptr() { reset(); }

    ref_ptr& operator=(const ref_ptr& o) noexcept {
        ref_ptr(o).swap(*this);
        return *this;
    }
    ref_ptr& operator=(ref_ptr&& o) noexcept {
        ref_ptr(std::move(o)).swap(*this);
        return *this;
    }

    void reset() noexcept {
        if (T* p = std::exchange(m_ptr, nullptr)) p->releaseRef();
    }
    void swap(ref_ptr& o) noexcept { std::swap(m_ptr, o.m_ptr); }

    T* get() const noexcept { return m_ptr; }
    T* operator->() const noexcept { return m_ptr; }
    T& operator*() const noexcept { return *m_ptr; }
    explicit operator bool() const noexcept { return m_ptr != nullptr; }
    bool is_null() const noexcept { return m_ptr == nullptr; }

    template <class U>
    bool operator==(const ref_ptr<U>& o) const noexcept {
        return m_ptr == o.get();
    }
    template <class U>
    bool operator!=(const ref_ptr<U>& o) const noexcept {
        return m_ptr != o.get();
    }
    bool operator<(const ref_ptr& o) const noexcept { return m_ptr < o.m_ptr; }

private:
    T* m_ptr = nullptr;
};

// Base of reference-counted objects shared between threads: an atomic 32-bit
// count and a virtual destructor. The object deletes itself with its last
// reference.
class TESSERA_API ThreadSafeRefBase {
public:
    ThreadSafeRefBase() = default;
    ThreadSafeRefBase(const ThreadSafeRefBase&) : m_refCount(0) {}
    ThreadSafeRefBase& operator=(const ThreadSafeRefBase&) { return *this; }
    virtual ~ThreadSafeRefBase() = default;

    void addRef() const noexcept { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    void releaseRef() const noexcept {
        if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    uint32_t refCount() const noexcept { return m_refCount.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<uint32_t> m_refCount{0};
};

}  // namespace RCX_ptr_v4

// Named without its namespace everywhere: it is the base of every shared
// object. Its symbols live in RCX_ptr_v4, with the library's others.
using RCX_ptr_v4::ThreadSafeRefBase;

namespace Util {
template <class T>
using RcPtr = RCX_ptr_v4::ref_ptr<T>;
}  // namespace Util
