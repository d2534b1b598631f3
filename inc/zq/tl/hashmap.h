// The hash map of the library and the hash functions it is used with.
//
// tl::hash_map is std::unordered_map with a starting size fitted to the library's maps (a
// writer's handles, a message's fields), which hold about ten entries: a default-built map
// already has the buckets for them, so filling it does not rehash on the way.
// pointer_hash keys maps by object identity; wstring_hash keys them by wide text.
#pragma once

#include <cstddef>
#include <functional>
#include <unordered_map>
#include <utility>

#include "zq/webkeel/string.h"

namespace kiv::tl {

// The address itself: distinct objects have distinct addresses, and the standard map reduces
// hashes modulo a prime bucket count, so the zero low bits of aligned pointers do no harm.
struct pointer_hash {
    template <class T>
    std::size_t operator()(T* p) const noexcept {
        return reinterpret_cast<std::size_t>(p);
    }
};

// FNV-1a over the characters; accepts String, std::wstring and std::wstring_view alike.
using wstring_hash = String::Hash;

template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
class hash_map {
    using Map = std::unordered_map<K, V, Hash, Eq>;

public:
    using key_type = K;
    using mapped_type = V;
    using value_type = typename Map::value_type;
    using size_type = typename Map::size_type;
    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

    static constexpr size_type kDefaultBuckets = 16;

    hash_map() : m_map(kDefaultBuckets) {}
    explicit hash_map(size_type nBuckets) : m_map(nBuckets) {}

    iterator find(const K& key) { return m_map.find(key); }
    const_iterator find(const K& key) const { return m_map.find(key); }
    size_type count(const K& key) const { return m_map.count(key); }
    bool contains(const K& key) const { return m_map.find(key) != m_map.end(); }

    std::pair<iterator, bool> insert(const value_type& value) { return m_map.insert(value); }
    std::pair<iterator, bool> insert(value_type&& value) { return m_map.insert(std::move(value)); }
    template <class... Args>
    std::pair<iterator, bool> emplace(Args&&... args) {
        return m_map.emplace(std::forward<Args>(args)...);
    }
    V& operator[](const K& key) { return m_map[key]; }
    V& operator[](K&& key) { return m_map[std::move(key)]; }

    size_type erase(const K& key) { return m_map.erase(key); }
    iterator erase(const_iterator it) { return m_map.erase(it); }
    iterator erase(iterator it) { return m_map.erase(it); }
    void clear() noexcept { m_map.clear(); }

    size_type size() const noexcept { return m_map.size(); }
    bool empty() const noexcept { return m_map.empty(); }
    size_type bucket_count() const noexcept { return m_map.bucket_count(); }
    // Makes room for nCount entries without a rehash.
    void reserve(size_type nCount) { m_map.reserve(nCount); }

    iterator begin() noexcept { return m_map.begin(); }
    iterator end() noexcept { return m_map.end(); }
    const_iterator begin() const noexcept { return m_map.begin(); }
    const_iterator end() const noexcept { return m_map.end(); }

    friend bool operator==(const hash_map& a, const hash_map& b) { return a.m_map == b.m_map; }

private:
    Map m_map;
};

}  // namespace kiv::tl
