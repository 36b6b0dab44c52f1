// A count that is one higher during a scope, also when the thread is cancelled in it.
#ifndef DM_BASE_COUNTED_H
#define DM_BASE_COUNTED_H

#include <cstdint>

namespace dm {

class Counted {
public:
    explicit Counted(uint32_t& count) : count_(count) { ++count_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --count_; }

private:
    uint32_t& count_;
};

} // namespace dm

#endif
