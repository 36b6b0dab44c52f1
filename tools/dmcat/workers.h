// Threads for calls that others can hold up for most of a minute, as on HDC. Nobody waits for such
// a call to end: the threads hold what they use, and the process ends in spite of them.
#ifndef DMCAT_WORKERS_H
#define DMCAT_WORKERS_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace dmcat {

class Workers {
public:
    // Must not throw, and holds all that it uses: it may go on when the workers' owner is gone.
    using Job = std::function<void()>;

    // Threads start as jobs come.
    explicit Workers(std::size_t max_threads) : max_threads_(max_threads) {}
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    // Drops the jobs that wait, and leaves behind those that do not end at once.
    ~Workers() noexcept(false);

    // A job waits for its turn when no more threads may or can be started. Throws std::system_error
    // when not even one can.
    void post(Job job);

    // True while a job would wait for its turn.
    bool busy();

    // True when threads were left behind: then the process must end without taking down what
    // belongs to all of it (_exit(2)).
    static bool left_behind();

private:
    struct Shared {
        std::mutex mutex; // guards what follows
        std::condition_variable changed;
        std::deque<Job> jobs;
        std::size_t idle = 0;
        std::size_t running = 0; // threads, idle ones as well
        bool ended = false;
    };

    void start_thread();
    static void work(Shared& shared);

    std::size_t max_threads_;
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::vector<std::thread> threads_;
};

} // namespace dmcat

#endif
