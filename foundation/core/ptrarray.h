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

/// An owning array of objects. An element may be null. Owning is not an option here: the array
/// frees what it holds, whatever becomes of it.
class ExtPtrArray {
  public:
    /// Null outside the bounds.
    [[nodiscard]] NonRefCountedObj* elementAt(int index) const noexcept {
        const auto at = static_cast<std::size_t>(index);
        return index < 0 || at >= m_items.size() ? nullptr : m_items[at].get();
    }
    [[nodiscard]] int getSize() const noexcept { return static_cast<int>(m_items.size()); }

    /// Bytes for `count` pointers are taken now, so that as many appends cannot fail.
    void reserve(std::size_t count) { m_items.reserve(count); }
    void appendObject(std::unique_ptr<NonRefCountedObj> item) {
        m_items.push_back(std::move(item));
        ++m_changes;
    }
    void removeAllObjects() noexcept {
        m_items.clear();
        ++m_changes;
    }
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

    /// Says that elements were changed in place.
    void noteChange() noexcept { ++m_changes; }
    /// Grows with every change of the array: tells whether an index made over it is still good.
    [[nodiscard]] std::uint64_t changes() const noexcept { return m_changes; }

  private:
    std::vector<std::unique_ptr<NonRefCountedObj>> m_items;
    std::uint64_t m_changes = 0;
};

/// An owning array of strings.
class ExtPtrArraySb {
  public:
    /// Null outside the bounds.
    [[nodiscard]] const StringBuffer* sbAt(int index) const noexcept {
        const auto at = static_cast<std::size_t>(index);
        return index < 0 || at >= m_items.size() ? nullptr : m_items[at].get();
    }
    [[nodiscard]] int getSize() const noexcept { return static_cast<int>(m_items.size()); }
    void appendString(std::string_view text) {
        m_items.push_back(std::make_unique<StringBuffer>(text));
    }
    void removeAllSbs() noexcept { m_items.clear(); }

  private:
    std::vector<std::unique_ptr<StringBuffer>> m_items;
};

}  // namespace mervane

#endif
