#ifndef MERVANE_FOUNDATION_JSON_COMPACTLIST_H
#define MERVANE_FOUNDATION_JSON_COMPACTLIST_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace mervane {

/// A dynamic array the size of one pointer: size and capacity precede the elements on the heap, and
/// an empty list allocates nothing.
///
/// JsonValue is built on it. A hostile JSON text makes a value of every second byte ("[0,0,0"), so
/// the three words of a std::vector in each value would be multiplied by millions.
///
/// Indexes are not checked. Adding elements invalidates pointers, as with std::vector. At most
/// 2^32 - 1 elements; beyond that std::length_error.
template <class T>
class CompactList {
  public:
    /// @{
    /// Empty; copied element by element.
    CompactList() noexcept = default;
    CompactList(const CompactList& other) : CompactList() { append(other.begin(), other.size()); }
    CompactList(CompactList&& other) noexcept : m_block(std::exchange(other.m_block, nullptr)) {}
    CompactList& operator=(CompactList other) noexcept {
        std::swap(m_block, other.m_block);
        return *this;
    }
    /// @}
    ~CompactList() {
        if (m_block == nullptr) return;
        std::destroy_n(items(m_block), size());
        ::operator delete(m_block);
    }

    /// @{
    /// Same as in std::vector.
    [[nodiscard]] std::size_t size() const noexcept {
        return m_block == nullptr ? 0 : m_block->size;
    }
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }
    [[nodiscard]] T* begin() noexcept { return m_block == nullptr ? nullptr : items(m_block); }
    [[nodiscard]] T* end() noexcept { return begin() + size(); }
    [[nodiscard]] const T* begin() const noexcept {
        return m_block == nullptr ? nullptr : items(m_block);
    }
    [[nodiscard]] const T* end() const noexcept { return begin() + size(); }
    [[nodiscard]] T& operator[](std::size_t i) noexcept { return begin()[i]; }
    [[nodiscard]] const T& operator[](std::size_t i) const noexcept { return begin()[i]; }
    [[nodiscard]] const T& back() const noexcept { return end()[-1]; }
    /// @}

    /// Allocates for `numItems` elements in all.
    void reserve(std::size_t numItems) {
        if (numItems <= capacity()) return;
        if (numItems > std::numeric_limits<std::uint32_t>::max())
            throw std::length_error("CompactList");
        auto* fresh = new (::operator new(sizeof(Block) + numItems * sizeof(T)))
            Block{static_cast<std::uint32_t>(size()), static_cast<std::uint32_t>(numItems)};
        std::uninitialized_move(begin(), end(), items(fresh));  // cannot throw, see items()
        std::swap(m_block, fresh);  // `fresh` is the old block from here
        if (fresh == nullptr) return;
        std::destroy_n(items(fresh), fresh->size);
        ::operator delete(fresh);
    }

    /// Adds an element at the end and returns it. Amortised constant time.
    template <class... Args>
    T& emplace_back(Args&&... args) {
        if (size() == capacity()) {
            T item(std::forward<Args>(args)...);  // `args` may refer to an element about to move
            reserve(std::max<std::size_t>(1, 2 * size()));
            return emplace_back(std::move(item));
        }
        T* const added = std::construct_at(end(), std::forward<Args>(args)...);
        ++m_block->size;
        return *added;
    }

    /// Appends copies of `numOthers` elements, which must not be in this list.
    void append(const T* others, std::size_t numOthers) {
        if (numOthers == 0) return;
        reserve(size() + numOthers);
        std::uninitialized_copy_n(others, numOthers, end());
        m_block->size += static_cast<std::uint32_t>(numOthers);
    }

    /// Removes the elements for which `predicate` is true, and keeps the order of the rest.
    template <class Predicate>
    void eraseIf(const Predicate& predicate) {
        T* const last = std::remove_if(begin(), end(), predicate);
        const auto numErased = static_cast<std::uint32_t>(end() - last);
        std::destroy_n(last, numErased);
        if (numErased != 0) m_block->size -= numErased;
    }

  private:
    // Head of the heap block; the elements follow immediately.
    struct Block {
        std::uint32_t size;
        std::uint32_t capacity;
    };

    [[nodiscard]] std::size_t capacity() const noexcept {
        return m_block == nullptr ? 0 : m_block->capacity;
    }
    static T* items(Block* block) noexcept {
        static_assert(alignof(T) <= sizeof(Block) && std::is_nothrow_move_constructible_v<T>);
        return reinterpret_cast<T*>(block + 1);
    }

    Block* m_block = nullptr;
};

}  // namespace mervane

#endif
