// Intrusive reference counting.
//
// Objects shared by handle carry their own count: RefCountedBaseTemplate<Alloc> for class
// families with a virtual destructor (the usual case), RefCountedNonVirtualBase for small
// immutable values that are always held through a handle of their exact type. The count starts
// at 0; Handle<T> adds one reference per holder, and the holder that drops the last reference
// deletes the object. Counts are atomic, so handles to one object may live on many threads;
// a single Handle object is not itself synchronised.
//
// Dereferencing an empty handle throws InvalidHandleException naming the pointee type, so a
// broken invariant surfaces as an in-house exception that the logger's entry points swallow,
// rather than as a crash.
#pragma once

#include <atomic>
#include <cstdint>
#include <typeinfo>
#include <utility>

#include "zq/webkeel/memalloc.h"

namespace kiv {

// Throws InvalidHandleException for the type (defined with the exceptions).
[[noreturn]] void throwInvalidHandle(const std::type_info& type);

template <class Alloc = MemAllocNewdel>
class RefCountedBaseTemplate : public Alloc {
public:
    RefCountedBaseTemplate() noexcept = default;
    // A copy is a new object: it starts with no holders of its own.
    RefCountedBaseTemplate(const RefCountedBaseTemplate&) noexcept : Alloc() {}
    RefCountedBaseTemplate& operator=(const RefCountedBaseTemplate&) noexcept { return *this; }
    virtual ~RefCountedBaseTemplate() = default;

    void addRef() const noexcept { m_nRefCount.fetch_add(1, std::memory_order_relaxed); }
    // Takes a reference only while someone else still holds one: false for an object whose
    // last holder has let go (it is being deleted) or that no holder has taken yet. Lets a
    // registry of plain pointers hand out handles without reviving a dying object.
    bool tryAddRef() const noexcept {
        std::int32_t nCount = m_nRefCount.load(std::memory_order_relaxed);
        while (nCount > 0) {
            if (m_nRefCount.compare_exchange_weak(nCount, nCount + 1, std::memory_order_acquire,
                                                  std::memory_order_relaxed)) {
                return true;
            }
        }
        return false;
    }
    // True when this was the last reference: the caller deletes the object.
    bool releaseRef() const noexcept {
        return m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    std::int32_t refCount() const noexcept { return m_nRefCount.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<std::int32_t> m_nRefCount{0};
};

class RefCountedNonVirtualBase : public MemAllocNewdel {
public:
    RefCountedNonVirtualBase() noexcept = default;
    RefCountedNonVirtualBase(const RefCountedNonVirtualBase&) noexcept : MemAllocNewdel() {}
    RefCountedNonVirtualBase& operator=(const RefCountedNonVirtualBase&) noexcept { return *this; }

    void addRef() const noexcept { m_nRefCount.fetch_add(1, std::memory_order_relaxed); }
    bool releaseRef() const noexcept {
        return m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    std::int32_t refCount() const noexcept { return m_nRefCount.load(std::memory_order_relaxed); }

protected:
    ~RefCountedNonVirtualBase() = default;

private:
    mutable std::atomic<std::int32_t> m_nRefCount{0};
};

template <class T>
class Handle {
public:
    using element_type = T;

    Handle() noexcept = default;
    Handle(std::nullptr_t) noexcept {}
    Handle(T* p) noexcept : m_p(p) { acquire(); }
    Handle(const Handle& other) noexcept : m_p(other.m_p) { acquire(); }
    Handle(Handle&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Handle(const Handle<U>& other) noexcept : m_p(other.get()) {
        acquire();
    }
    ~Handle() { drop(); }

    Handle& operator=(const Handle& other) noexcept {
        Handle(other).swap(*this);
        return *this;
    }
    Handle& operator=(Handle&& other) noexcept {
        Handle(std::move(other)).swap(*this);
        return *this;
    }
    Handle& operator=(T* p) noexcept {
        Handle(p).swap(*this);
        return *this;
    }

    T* operator->() const {
        if (m_p == nullptr) {
            throwInvalidHandle(typeid(T));
        }
        return m_p;
    }
    T& operator*() const { return *operator->(); }
    T* get() const noexcept { return m_p; }
    bool isNull() const noexcept { return m_p == nullptr; }
    explicit operator bool() const noexcept { return m_p != nullptr; }
    void reset() noexcept { Handle().swap(*this); }
    void swap(Handle& other) noexcept { std::swap(m_p, other.m_p); }

    friend bool operator==(const Handle& a, const Handle& b) noexcept { return a.m_p == b.m_p; }
    friend bool operator==(const Handle& a, std::nullptr_t) noexcept { return a.m_p == nullptr; }

private:
    void acquire() noexcept {
        if (m_p != nullptr) {
            m_p->addRef();
        }
    }
    void drop() noexcept {
        if (m_p != nullptr && m_p->releaseRef()) {
            delete m_p;
        }
        m_p = nullptr;
    }

    T* m_p = nullptr;
};

}  // namespace kiv
