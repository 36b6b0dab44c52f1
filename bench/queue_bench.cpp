// A write and a read of a queue beside the two kernel calls that they cannot do without, with the
// same allocation and copies.
#include "ipmi_v_queue.h"

#include "support/cpu_time.h"
#include "support/ratio_reporter.h"

#include <sys/msg.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kExchanges = 200; // of one batch

using Bytes = std::vector<char>;

void require(bool condition, const char* what) {
    if (condition)
        return;
    std::perror(what);
    std::exit(2);
}

class Library {
public:
    Library() { require(vos_private_queue_create("bench", 16, &qid_, 9, 1) == 0, "create"); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { vos_queue_delete(id()); }

    void exchange(const Bytes& data, Bytes& got) const {
        const auto size = static_cast<uint32_t>(data.size());
        require(vos_queue_asy_write(id(), data.data(), size) == 0, "write");
        require(vos_queue_asy_read(id(), got.data(), size) == size, "read");
    }

private:
    uint64_t id() const { return static_cast<uint64_t>(qid_); }

    int32_t qid_ = -1;
};

class Peer {
public:
    Peer() { require(qid_ != -1, "msgget"); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { msgctl(qid_, IPC_RMID, nullptr); }

    void exchange(const Bytes& data, Bytes& got) const {
        struct {
            long type;
            void* block;
        } message = {1, std::malloc(data.size())};
        require(message.block != nullptr, "malloc");
        std::memcpy(message.block, data.data(), data.size());
        require(msgsnd(qid_, &message, sizeof(void*), IPC_NOWAIT) == 0, "msgsnd");
        require(msgrcv(qid_, &message, sizeof(void*), 1, IPC_NOWAIT) == sizeof(void*), "msgrcv");
        std::memcpy(got.data(), message.block, got.size());
        std::free(message.block);
    }

private:
    int qid_ = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
};

template<class Side>
void exchange(benchmark::State& state) {
    const Side side;
    const Bytes data(static_cast<size_t>(state.range(0)), 'd');
    Bytes got(data.size());
    for ([[maybe_unused]] auto iteration : state) {
        bench::time_iteration(state, [&] {
            for (int i = 0; i < kExchanges; ++i)
                side.exchange(data, got);
        });
    }
}

#define PAIR(size)                                                                     \
    BENCHMARK(exchange<Library>)->Name("exchange/" #size)->Arg(size)->UseManualTime(); \
    BENCHMARK(exchange<Peer>)->Name("exchange/" #size "/bare")->Arg(size)->UseManualTime()

PAIR(16);
PAIR(256);
PAIR(4096);

} // namespace

int main(int argc, char** argv) {
    std::vector<bench::Ratio> ratios;
    for (const std::string name : {"exchange/16", "exchange/256", "exchange/4096"})
        ratios.push_back({name + " bytes against bare calls", name, name + "/bare", 1.15});
    return bench::run(argc, argv, ratios);
}
