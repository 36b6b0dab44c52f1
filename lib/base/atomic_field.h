// Plain fields of C records that several threads touch without a lock keep their layout and are
// accessed through these, so that no access is a data race. Who loads a value also sees what its
// writer did before; there is no order between different fields.
#ifndef DM_BASE_ATOMIC_FIELD_H
#define DM_BASE_ATOMIC_FIELD_H

#include <atomic>

namespace dm {

template<class T>
T load(const T& field) {
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_acquire);
}

template<class T>
void store(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

} // namespace dm

#endif
