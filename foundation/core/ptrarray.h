#ifndef MERVANE_FOUNDATION_CORE_PTRARRAY_H
#define MERVANE_FOUNDATION_CORE_PTRARRAY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "../text/stringbuffer.h"
#include "object.h"

namespace mervane {

/// An array of pointers to objects, which may be null. Always owns its elements and frees them
/// with the array.
class ExtPtrArray {
  public:
    /// The element at a zero-based index; null outside the bounds. The array keeps ownership.
    [[nodiscard]] NonRefCountedObj* elementAt(int index) const noexcept {
        const auto at = static_cast<std::size_t>(index);
        return index < 0 || at >= m_items.size() ? nullptr : m_items[at].get();
    }
    /// The number of elements.
    [[nodiscard]] int getSize() const noexcept { return static_cast<int>(m_items.size()); }

    /// Allocates for `count` elements in all; appends up to that many cannot fail.
    void reserve(std::size_t count) { m_items.reserve(count); }
    /// Adds an element at the end and takes ownership of it.
    void appendObject(std::unique_ptr<NonRefCountedObj> item) {
        m_items.push_back(std::move(item));
        ++m_changes;
    }
    /// Frees all elements.
    void removeAllObjects() noexcept {
        m_items.clear();
        ++m_changes;
    }
    /// Exchanges the elements; allocates nothing.
    void swap(ExtPtrArray& other) noexcept {
        m_items.swap(other.m_items);
        ++m_changes;
        ++other.m_changes;
    }

    /// Empties the array without freeing anything: for a forked child in which the array may be
    /// half changed.
    void abandon() noexcept {
        std::construct_at(&m_items);
        ++m_changes;
    }

    /// To be called after elements were changed in place.
    void noteChange() noexcept { ++m_changes; }
    /// Counts the changes, so that an index over the array can tell when it is out of date.
    [[nodiscard]] std::uint64_t changes() const noexcept { return m_changes; }

  private:
    std::vector<std::unique_ptr<NonRefCountedObj>> m_items;
    std::uint64_t m_changes = 0;
};

/// An array of strings, which it owns.
class ExtPtrArraySb {
  public:
    /// The string at a zero-based index; null outside the bounds.
    [[nodiscard]] const StringBuffer* sbAt(int index) const noexcept {
        const auto at = static_cast<std::size_t>(index);
        return index < 0 || at >= m_items.size() ? nullptr : m_items[at].get();
    }
    /// The number of elements.
    [[nodiscard]] int getSize() const noexcept { return static_cast<int>(m_items.size()); }
    /// Adds a copy at the end.
    void appendString(std::string_view text) {
        m_items.push_back(std::make_unique<StringBuffer>(text));
    }
    /// Frees all strings.
    void removeAllSbs() noexcept { m_items.clear(); }

  private:
    std::vector<std::unique_ptr<StringBuffer>> m_items;
};

}  // namespace mervane

#endif
