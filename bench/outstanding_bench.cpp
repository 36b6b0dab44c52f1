// Answering requests in the order in which they were sent, with few and with many outstanding.
#include "dm_msg_intf.h"

#include "support/measure.h"
#include "support/runner.h"

#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>

namespace {

constexpr int kAnswers = 2000; // of one batch

// An interface whose peer answers the oldest request at each turn of the loop, while a batch lasts;
// each answer makes room for one more request.
struct Peer {
    std::deque<uint64_t> outstanding;
    int left = 0;
    sem_t done;
    int fd = eventfd(0, EFD_NONBLOCK);
    DM_INTF_ST* intf = nullptr;

    Peer() { sem_init(&done, 0, 0); }
    ~Peer() {
        sem_destroy(&done);
        close(fd);
    }
};

Peer& peer_of(const DM_INTF_ST* intf) {
    return *reinterpret_cast<Peer*>(intf->reserved);
}

int answer_oldest(DM_INTF_ST* intf, int32_t fd, int16_t, DM_MSG_ST* msg) {
    Peer& peer = peer_of(intf);
    msg->type = DM_MSG_RSP;
    msg->req_id = peer.outstanding.front();
    peer.outstanding.pop_front();
    if (--peer.left == 0) {
        eventfd_t value;
        eventfd_read(fd, &value);
        sem_post(&peer.done);
    }
    return 0;
}

int keep(DM_INTF_ST* intf, uint32_t, DM_ADDR_ST*, uint32_t, DM_DATA_ST*, uint64_t req_id) {
    peer_of(intf).outstanding.push_back(req_id);
    return 0;
}

int send_one(DM_INTF_ST* intf) {
    static char bytes[64];
    DM_DATA_ST data{sizeof(bytes), bytes};
    DM_ADDR_ST addr{};
    const auto next = [](DM_INTF_ST* self, DM_MSG_ST*, void*, int32_t) { return send_one(self); };
    return dm_send_req(intf, &addr, sizeof(addr), &data, next, nullptr, 1);
}

DM_INTF_ST* add_interface(DM_CB_ST* dm_cb, Peer& peer) {
    auto* intf = static_cast<DM_INTF_ST*>(std::calloc(1, sizeof(DM_INTF_ST)));
    std::strcpy(intf->name, "peer");
    intf->reserved = reinterpret_cast<uintptr_t>(&peer);
    intf->fd = peer.fd;
    intf->timeout_ms = 1000000;
    intf->recv_msg = answer_oldest;
    intf->send_msg = keep;
    intf->dm_cb = dm_cb;
    return dm_intf_register(dm_cb, intf) == 0 ? intf : nullptr;
}

// The eventfd wakes the loop at its next turn; it stays readable until the batch is over.
void answer(Peer& peer, int count) {
    peer.left = count;
    eventfd_write(peer.fd, 1);
    sem_wait(&peer.done);
}

void answer_in_order(benchmark::State& state, int outstanding) {
    DM_CB_ST* dm_cb = nullptr;
    Peer peer;
    if (dm_init(&dm_cb) != 0 || (peer.intf = add_interface(dm_cb, peer)) == nullptr)
        std::abort();
    for (int i = 0; i < outstanding; ++i)
        if (send_one(peer.intf) != 0)
            std::abort();
    // Replaces every request once, so that all memory has been touched by the poll thread.
    answer(peer, outstanding);
    bench::measure(state, kAnswers, [&] { answer(peer, kAnswers); });
    dm_destroy(dm_cb);
}

} // namespace

int main(int argc, char** argv) {
    const std::string work = "answer in order";
    for (const auto& [system, count] : {std::pair{"1 outstanding", 1}, std::pair{"10,000", 10000}})
        bench::add(work, system,
                   [count = count](benchmark::State& state) { answer_in_order(state, count); });
    return bench::run(argc, argv,
                      {{work + ", 10,000 requests outstanding against 1", work + "/10,000",
                        work + "/1 outstanding", 1.3}});
}
