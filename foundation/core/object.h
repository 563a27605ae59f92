#ifndef MERVANE_FOUNDATION_CORE_OBJECT_H
#define MERVANE_FOUNDATION_CORE_OBJECT_H

#include <cstddef>

namespace mervane {

/// Root of the library's polymorphic objects.
class MervaneObject {
  public:
    virtual ~MervaneObject() = default;

    /// Bytes of heap that the object owns, its own size excluded; 0 if it does not keep count.
    [[nodiscard]] virtual std::size_t heapUsage() const noexcept { return 0; }

  protected:
    MervaneObject() = default;
    /// @{
    /// For derived classes that are copyable.
    MervaneObject(const MervaneObject&) = default;
    MervaneObject& operator=(const MervaneObject&) = default;
    /// @}
};

/// An object with one owner: never shared, never copied.
class NonRefCountedObj : public MervaneObject {
  public:
    NonRefCountedObj(const NonRefCountedObj&) = delete;
    NonRefCountedObj& operator=(const NonRefCountedObj&) = delete;

  protected:
    NonRefCountedObj() = default;
};

}  // namespace mervane

#endif
