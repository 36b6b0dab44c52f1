// A write and a read of a queue beside the two kernel calls that they cannot do without, with the
// same allocation and copies.
#include "ipmi_v_queue.h"

#include "support/measure.h"
#include "support/require.h"
#include "support/runner.h"

#include <sys/msg.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr int kExchanges = 200; // of one batch

using bench::require;
using Bytes = std::vector<char>;

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
void add(const std::string& work, const std::string& system, size_t size) {
    bench::add(work, system, [size](benchmark::State& state) {
        const Side side;
        const Bytes data(size, 'd');
        Bytes got(data.size());
        bench::measure(state, kExchanges, [&] {
            for (int i = 0; i < kExchanges; ++i)
                side.exchange(data, got);
        });
    });
}

} // namespace

int main(int argc, char** argv) {
    std::vector<bench::Target> targets;
    for (const size_t size : {16U, 256U, 4096U}) {
        const std::string work = "queue, write and read of " + std::to_string(size) + " bytes";
        add<Peer>(work, "bare calls", size);
        add<Library>(work, "library", size);
        targets.push_back(
            {work + ", against bare calls", work + "/library", work + "/bare calls", 1.2});
    }
    return bench::run(argc, argv, targets);
}
