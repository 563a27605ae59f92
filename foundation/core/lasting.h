#ifndef MERVANE_FOUNDATION_CORE_LASTING_H
#define MERVANE_FOUNDATION_CORE_LASTING_H

#include <atomic>
#include <memory>

namespace mervane {

/// An object for the whole process: made at its first use, and never destroyed, because objects of
/// static storage may outlive anything that is. For constant initialisation (`constinit`).
///
/// A static variable of a function will not do. The compiler guards its construction with a lock,
/// and a child forked while another thread constructs it would wait for that thread for ever. Here
/// two threads may each make an object, and one of them is thrown away again.
template <class Object>
class Lasting {
  public:
    /// The object. Throws what its constructor throws, and the next call tries again. Any thread.
    Object& get() {
        Object* object = m_object.load(std::memory_order_acquire);
        if (object != nullptr) return *object;
        auto fresh = std::make_unique<Object>();
        return m_object.compare_exchange_strong(object, fresh.get()) ? *fresh.release() : *object;
    }

    /// Puts a new object in the place of `old`, unless another thread already has; returns what
    /// stands there now. `old` is not destroyed: others may still use it.
    Object& replace(Object& old) {
        Object* expected = &old;
        auto fresh = std::make_unique<Object>();
        fresh->before = &old;  // kept in reach, so that no tool calls it a leak
        return m_object.compare_exchange_strong(expected, fresh.get()) ? *fresh.release()
                                                                       : *expected;
    }

  private:
    std::atomic<Object*> m_object{nullptr};
};

}  // namespace mervane

#endif
