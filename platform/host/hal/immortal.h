// Objects that live as long as the process.
#ifndef HAL_IMMORTAL_H
#define HAL_IMMORTAL_H

#include <cstddef>
#include <new>

namespace hal {

// @return the only object of a type. It is never destroyed, for threads go on while a process
// exits; and it lies in no memory that has to be had first: also a call that may not fail can use
// it.
template<class T>
T& immortal() {
    alignas(T) static std::byte storage[sizeof(T)];
    static T& only = *new (storage) T;
    return only;
}

} // namespace hal

#endif
