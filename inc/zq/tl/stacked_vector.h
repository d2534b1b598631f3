// A vector that keeps its first elements inside itself.
//
// local_heap::stacked_vector<N, T> holds up to N elements in inline storage and moves them all
// to one heap block when the N+1th arrives. The library's short lists (the fields of a message,
// the writers of a logger) nearly always fit, so a stacked_vector on the stack or inside another
// object lets the hot path build them without the allocator. Beyond N it behaves as a
// std::vector: growth doubles the capacity, and clear() keeps the storage for reuse.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "zq/webkeel/assert.h"

namespace kiv::local_heap {

template <std::size_t N, class T>
class stacked_vector {
    static_assert(N > 0, "a stacked_vector needs room for at least one inline element");

public:
    using value_type = T;
    using size_type = std::size_t;
    using reference = T&;
    using const_reference = const T&;
    using iterator = T*;
    using const_iterator = const T*;

    stacked_vector() noexcept : m_pData(inlineData()), m_nSize(0), m_nCapacity(N) {}

    stacked_vector(const stacked_vector& other) : stacked_vector() {
        try {
            reserve(other.m_nSize);
            std::uninitialized_copy(other.begin(), other.end(), m_pData);
            m_nSize = other.m_nSize;
        } catch (...) {
            freeHeap();  // the destructor does not run for a constructor that throws
            throw;
        }
    }

    stacked_vector(stacked_vector&& other) noexcept(std::is_nothrow_move_constructible_v<T>)
        : stacked_vector() {
        takeFrom(other);
    }

    ~stacked_vector() {
        clear();
        freeHeap();
    }

    stacked_vector& operator=(const stacked_vector& other) {
        if (this != &other) {
            clear();
            reserve(other.m_nSize);
            std::uninitialized_copy(other.begin(), other.end(), m_pData);
            m_nSize = other.m_nSize;
        }
        return *this;
    }

    stacked_vector& operator=(stacked_vector&& other) noexcept(
        std::is_nothrow_move_constructible_v<T>) {
        if (this != &other) {
            clear();
            takeFrom(other);
        }
        return *this;
    }

    void swap(stacked_vector& other) noexcept(std::is_nothrow_move_constructible_v<T>) {
        if (this == &other) {
            return;
        }
        if (isOnHeap() && other.isOnHeap()) {
            std::swap(m_pData, other.m_pData);
            std::swap(m_nSize, other.m_nSize);
            std::swap(m_nCapacity, other.m_nCapacity);
            return;
        }
        // Inline elements cannot change owner by a pointer swap: they have to be moved.
        stacked_vector tmp(std::move(other));
        other = std::move(*this);
        *this = std::move(tmp);
    }
    friend void swap(stacked_vector& a, stacked_vector& b) noexcept(noexcept(a.swap(b))) {
        a.swap(b);
    }

    void push_back(const T& value) { emplace_back(value); }
    void push_back(T&& value) { emplace_back(std::move(value)); }

    template <class... Args>
    T& emplace_back(Args&&... args) {
        if (m_nSize == m_nCapacity) {
            return growAndEmplace(std::forward<Args>(args)...);
        }
        T* p = ::new (static_cast<void*>(m_pData + m_nSize)) T(std::forward<Args>(args)...);
        ++m_nSize;
        return *p;
    }

    void pop_back() noexcept {
        ZQ_ASSERT(m_nSize != 0);
        if (m_nSize != 0) {
            --m_nSize;
            std::destroy_at(m_pData + m_nSize);
        }
    }

    // Removes one element and moves the later ones up, keeping their order. Returns the
    // position that now holds the element after the removed one.
    iterator erase(const_iterator pos) {
        T* pAt = m_pData + (pos - m_pData);
        std::move(pAt + 1, end(), pAt);
        pop_back();
        return pAt;
    }

    // Destroys the elements and keeps the storage.
    void clear() noexcept {
        std::destroy(m_pData, m_pData + m_nSize);
        m_nSize = 0;
    }

    void reserve(size_type nCapacity) {
        if (nCapacity <= m_nCapacity) {
            return;
        }
        T* pNew = allocate(nCapacity);
        try {
            transferElementsTo(pNew);
        } catch (...) {
            std::allocator<T>().deallocate(pNew, nCapacity);
            throw;
        }
        adopt(pNew, nCapacity);
    }

    T& operator[](size_type i) noexcept { return m_pData[i]; }
    const T& operator[](size_type i) const noexcept { return m_pData[i]; }
    T& front() noexcept { return m_pData[0]; }
    const T& front() const noexcept { return m_pData[0]; }
    T& back() noexcept { return m_pData[m_nSize - 1]; }
    const T& back() const noexcept { return m_pData[m_nSize - 1]; }
    T* data() noexcept { return m_pData; }
    const T* data() const noexcept { return m_pData; }

    iterator begin() noexcept { return m_pData; }
    iterator end() noexcept { return m_pData + m_nSize; }
    const_iterator begin() const noexcept { return m_pData; }
    const_iterator end() const noexcept { return m_pData + m_nSize; }

    size_type size() const noexcept { return m_nSize; }
    bool empty() const noexcept { return m_nSize == 0; }
    size_type capacity() const noexcept { return m_nCapacity; }
    bool isOnHeap() const noexcept { return m_pData != inlineData(); }

    friend bool operator==(const stacked_vector& a, const stacked_vector& b) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

private:
    T* inlineData() noexcept { return reinterpret_cast<T*>(m_arrInline); }
    const T* inlineData() const noexcept { return reinterpret_cast<const T*>(m_arrInline); }

    static T* allocate(size_type nCapacity) { return std::allocator<T>().allocate(nCapacity); }

    void freeHeap() noexcept {
        if (isOnHeap()) {
            std::allocator<T>().deallocate(m_pData, m_nCapacity);
            m_pData = inlineData();
            m_nCapacity = N;
        }
    }

    // Builds the elements in pNew by moving them, or by copying them when moving could throw and
    // copying exists, so that a failure leaves this vector as it was.
    void transferElementsTo(T* pNew) {
        if constexpr (std::is_nothrow_move_constructible_v<T> || !std::is_copy_constructible_v<T>) {
            std::uninitialized_move(begin(), end(), pNew);
        } else {
            std::uninitialized_copy(begin(), end(), pNew);
        }
    }

    // Switches to pNew, which holds the elements already.
    void adopt(T* pNew, size_type nCapacity) noexcept {
        std::destroy(m_pData, m_pData + m_nSize);
        freeHeap();
        m_pData = pNew;
        m_nCapacity = nCapacity;
    }

    // The new element is built before the old ones move, because the arguments may refer to
    // one of them (v.push_back(v[0])).
    template <class... Args>
    T& growAndEmplace(Args&&... args) {
        const size_type nCapacity = m_nCapacity * 2;
        T* pNew = allocate(nCapacity);
        T* p = nullptr;
        try {
            p = ::new (static_cast<void*>(pNew + m_nSize)) T(std::forward<Args>(args)...);
            transferElementsTo(pNew);
        } catch (...) {
            if (p != nullptr) {
                std::destroy_at(p);
            }
            std::allocator<T>().deallocate(pNew, nCapacity);
            throw;
        }
        adopt(pNew, nCapacity);
        ++m_nSize;
        return *p;
    }

    // Leaves other empty. This vector must be empty.
    void takeFrom(stacked_vector& other) noexcept(std::is_nothrow_move_constructible_v<T>) {
        if (other.isOnHeap()) {
            freeHeap();
            m_pData = other.m_pData;
            m_nCapacity = other.m_nCapacity;
            m_nSize = other.m_nSize;
            other.m_pData = other.inlineData();
            other.m_nCapacity = N;
            other.m_nSize = 0;
            return;
        }
        // Inline elements (at most N) fit in whatever storage this vector has.
        std::uninitialized_move(other.begin(), other.end(), m_pData);
        m_nSize = other.m_nSize;
        other.clear();
    }

    alignas(T) unsigned char m_arrInline[N * sizeof(T)];
    T* m_pData;
    size_type m_nSize;
    size_type m_nCapacity;
};

}  // namespace kiv::local_heap
