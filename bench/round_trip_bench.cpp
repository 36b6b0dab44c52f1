// One round trip through the framework against the bare exchange of the same bytes.
#include "dm_loop.h"
#include "dm_udp.h"

#include "support/measure.h"
#include "support/require.h"
#include "support/runner.h"

#include <netinet/in.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <thread>

namespace {

using bench::require;

constexpr int kTrips = 200;   // of one batch
constexpr int kPayload = 512; // what a UDP interface advertises; datagrams are of one size anyhow

DM_ADDR_ST loopback(uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DM_ADDR_ST addr{};
    addr.kind = DM_KIND_UDP;
    addr.family = DM_FAMILY_UDP;
    std::memcpy(addr.sa, &sa, sizeof(sa));
    return addr;
}

DM_ADDR_ST address_of(int fd) {
    DM_ADDR_ST addr = loopback(0);
    socklen_t len = sizeof(sockaddr_in);
    require(getsockname(fd, reinterpret_cast<sockaddr*>(addr.sa), &len) == 0, "getsockname");
    return addr;
}

// A count of what is to come, and the word that it came.
struct Batch {
    sem_t done;
    int left = 0;
    Batch() { sem_init(&done, 0, 0); }
    ~Batch() { sem_destroy(&done); }
};

// ---- through the framework ----

int echo(DM_INTF_ST* intf, DM_MSG_ST* msg, void*, int32_t) {
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

struct Client {
    DM_INTF_ST* intf;
    DM_ADDR_ST peer;
    Batch batch;
    std::array<char, kPayload> bytes{};

    void send() {
        DM_DATA_ST data{kPayload, bytes.data()};
        Client* self = this;
        require(dm_send_req(intf, &peer, DM_UDP_ADDR_LEN, &data, answered, &self, sizeof(self)) ==
                    0,
                "dm_send_req");
    }
    static int answered(DM_INTF_ST*, DM_MSG_ST*, void* user_data, int32_t) {
        Client* self = *static_cast<Client**>(user_data);
        if (--self->batch.left > 0)
            self->send();
        else
            sem_post(&self->batch.done);
        return 0;
    }
};

// The next request is sent by the callback of the one before, so that the two poll threads are all
// that runs, as in the bare exchange.
void udp_framework(benchmark::State& state) {
    DM_CB_ST* server = nullptr;
    DM_CB_ST* local = nullptr;
    require(dm_init(&server) == 0 && dm_init(&local) == 0, "dm_init");
    DM_ADDR_ST any = loopback(0);
    DM_INTF_ST* service = nullptr;
    Client client;
    require(dm_udp_init(&service, server, nullptr, &any, nullptr, 0) == 0, "dm_udp_init");
    require(dm_udp_init(&client.intf, local, nullptr, &any, nullptr, 0) == 0, "dm_udp_init");
    dm_cmd_register(server, echo, nullptr, nullptr, 1);
    client.peer = address_of(service->fd);
    bench::measure(state, kTrips, [&] {
        client.batch.left = kTrips;
        client.send();
        sem_wait(&client.batch.done);
    });
    dm_destroy(local);
    dm_destroy(server);
}

// A thread of the caller's sends a request and waits for its answer.
void loop_framework(benchmark::State& state) {
    DM_CB_ST* dm_cb = nullptr;
    require(dm_init(&dm_cb) == 0, "dm_init");
    dm_cmd_register(dm_cb, echo, nullptr, nullptr, 1);
    Client client;
    client.intf = dm_get_intf(dm_cb, "selfloop", 9);
    client.peer = {};
    bench::measure(state, kTrips, [&] {
        for (int i = 0; i < kTrips; ++i) {
            client.batch.left = 1;
            client.send();
            sem_wait(&client.batch.done);
        }
    });
    dm_destroy(dm_cb);
}

// ---- bare ----

using Frame = std::array<char, sizeof(DM_UDP_MSG_ST)>;

struct BareSocket {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    DM_ADDR_ST own = loopback(0);
    Frame frame{};

    BareSocket() {
        require(bind(fd, reinterpret_cast<sockaddr*>(own.sa), sizeof(sockaddr_in)) == 0, "bind");
        own = address_of(fd);
    }
    ~BareSocket() { close(fd); }

    void send(DM_ADDR_ST& to) {
        require(sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(to.sa),
                       sizeof(sockaddr_in)) == static_cast<ssize_t>(frame.size()),
                "sendto");
    }
    void receive(DM_ADDR_ST& from) {
        pollfd ready{fd, POLLIN, 0};
        require(poll(&ready, 1, 30000) == 1, "poll");
        socklen_t len = sizeof(sockaddr_in);
        require(recvfrom(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(from.sa),
                         &len) == static_cast<ssize_t>(frame.size()),
                "recvfrom");
    }
};

void udp_bare(benchmark::State& state) {
    BareSocket server;
    BareSocket client;
    std::thread service([&] {
        DM_ADDR_ST from{};
        do {
            server.receive(from);
            server.send(from);
        } while (server.frame[0] == 0);
    });
    DM_ADDR_ST from{};
    bench::measure(state, kTrips, [&] {
        for (int i = 0; i < kTrips; ++i) {
            client.send(server.own);
            client.receive(from);
        }
    });
    client.frame[0] = 1;
    client.send(server.own);
    service.join();
}

// A thread that polls a pipe, writes each frame it reads into it once more, and says when it came
// back.
void loop_bare(benchmark::State& state) {
    static std::array<char, sizeof(SELF_MSG_ST)> request{};
    int fds[2];
    require(pipe(fds) == 0, "pipe");
    const auto transfer = [](ssize_t result) {
        require(result == static_cast<ssize_t>(request.size()), "pipe");
    };
    Batch batch;
    std::thread service([&] {
        std::array<char, sizeof(SELF_MSG_ST)> frame{};
        for (bool answer = false; frame[0] == 0; answer = !answer) {
            pollfd ready{fds[0], POLLIN, 0};
            require(poll(&ready, 1, 30000) == 1, "poll");
            transfer(read(fds[0], frame.data(), frame.size()));
            if (answer)
                sem_post(&batch.done);
            else if (frame[0] == 0)
                transfer(write(fds[1], frame.data(), frame.size()));
        }
    });
    request[0] = 0;
    bench::measure(state, kTrips, [&] {
        for (int i = 0; i < kTrips; ++i) {
            transfer(write(fds[1], request.data(), request.size()));
            sem_wait(&batch.done);
        }
    });
    request[0] = 1;
    transfer(write(fds[1], request.data(), request.size()));
    service.join();
    close(fds[0]);
    close(fds[1]);
}

} // namespace

int main(int argc, char** argv) {
    bench::add("UDP round trip", "bare sockets", udp_bare);
    bench::add("UDP round trip", "library", udp_framework);
    bench::add("self-loop round trip", "bare pipe", loop_bare);
    bench::add("self-loop round trip", "library", loop_framework);
    return bench::run(argc, argv,
                      {{"UDP round trip, library against bare sockets", "UDP round trip/library",
                        "UDP round trip/bare sockets", 1.15},
                       {"self-loop round trip, library against a bare pipe",
                        "self-loop round trip/library", "self-loop round trip/bare pipe", 1.25}});
}
