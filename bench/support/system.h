// Systems that do the same work, and the peers among them that a program may have been built
// without.
#pragma once

#include "support/measure.h"
#include "support/runner.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace bench {

// What does a work with a system. It is made anew for each repetition, so that the luck of one
// placement in memory is not that of the whole run.
class System {
public:
    System() = default;
    System(const System&) = delete;
    System& operator=(const System&) = delete;
    virtual ~System() = default;

    // Does so many operations, and returns when they are done.
    virtual void run(int operations) = 0;
};

// A caller that waits for each operation before it begins the next.
template<class Side>
class OneByOne : public System {
public:
    template<class... Args>
    explicit OneByOne(Args... args) : side_(args...) {}

    void run(int operations) override {
        for (int i = 0; i < operations; ++i)
            side_.run(1);
    }

private:
    Side side_;
};

// Registers a system for a work, measured in batches.
inline void add_system(const std::string& work, const std::string& name, int operations,
                       std::function<std::unique_ptr<System>()> make) {
    add(work, name, [operations, make = std::move(make)](benchmark::State& state) {
        const std::unique_ptr<System> system = make();
        measure(state, operations, [&] { system->run(operations); });
    });
}

// A peer's source file has one: its function registers the peer when main() asks for the peers.
class Peer {
public:
    Peer(const char* name, void (*add_to_works)());
};

// Calls the functions of all peers that were compiled in, in the order of their names.
void add_peers();

} // namespace bench
