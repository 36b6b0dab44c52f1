// One HDC exchange between processes' ends (connect, send, answer, close) beside the same over bare
// sockets with a thread for each session.
#include "dm_hdc.h"

#include "support/measure.h"
#include "support/require.h"
#include "support/runner.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <semaphore>
#include <string>
#include <thread>

namespace {

using bench::require;

constexpr int kExchanges = 50; // of one batch
constexpr std::size_t kPayload = 64;

// The directory of both sides' sockets.
class Directory {
public:
    Directory() {
        require(mkdtemp(path_.data()) != nullptr, "mkdtemp");
        setenv("DM_HAL_DIR", path_.c_str(), 1);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "hdc_bench_XXXXXX";
};

const Directory& directory() {
    static const Directory only;
    return only;
}

DM_ADDR_ST hdc_address(std::uint32_t role, std::uint32_t number) {
    DM_HDC_ADDR_ST hdc{};
    hdc.kind = DM_KIND_HDC;
    hdc.family = DM_FAMILY_HDC;
    hdc.role = role;
    hdc.intf_num = number;
    DM_ADDR_ST address{};
    std::memcpy(&address, &hdc, sizeof address);
    return address;
}

// A server and a client, each with a context of its own as in two processes.
class Framework {
public:
    Framework() {
        directory();
        require(dm_init(&server_) == 0 && dm_init(&client_) == 0, "dm_init");
        DM_ADDR_ST address = hdc_address(DM_HDC_SERVER, 0);
        require(dm_cmd_register(server_, echo, nullptr, nullptr, 1) == 0, "register");
        require(dm_hdc_init(nullptr, server_, nullptr, &address, nullptr, 0) == 0, "server");
        address = hdc_address(DM_HDC_CLIENT, 1);
        require(dm_hdc_init(&intf_, client_, nullptr, &address, nullptr, 0) == 0, "client");
    }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void exchange(char* payload) {
        DM_DATA_ST data{kPayload, payload};
        DM_ADDR_ST peer = hdc_address(DM_HDC_CLIENT, 0);
        Framework* self = this;
        require(dm_send_req(intf_, &peer, DM_HDC_ADDR_LEN, &data, answered, &self, sizeof self) ==
                    0,
                "send");
        answer_.acquire();
    }

private:
    static int echo(DM_INTF_ST* intf, DM_MSG_ST* msg, void*, int32_t) {
        return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
    }
    static int answered(DM_INTF_ST*, DM_MSG_ST*, void* self, int32_t) {
        (*static_cast<Framework**>(self))->answer_.release();
        return 0;
    }

    DM_CB_ST* server_ = nullptr;
    DM_CB_ST* client_ = nullptr;
    DM_INTF_ST* intf_ = nullptr;
    std::binary_semaphore answer_{0};
};

// The same bytes over the same kind of socket: the server has a thread for each session, and hands
// nothing over to anybody.
class Bare {
public:
    Bare() {
        address_.sun_family = AF_UNIX;
        (directory().path() + "/bare").copy(address_.sun_path, sizeof address_.sun_path - 1);
        require(bind(listener_, generic(), sizeof address_) == 0, "bind");
        require(listen(listener_, 64) == 0, "listen");
        std::thread([this] {
            for (;;) {
                const int session = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                require(session >= 0, "accept4");
                std::thread(serve, session).detach();
            }
        }).detach();
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void exchange(const char* payload) const {
        const int session = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        char frame[DM_HDC_HEADER_LEN + kPayload];
        std::memcpy(frame + DM_HDC_HEADER_LEN, payload, kPayload);
        require(connect(session, generic(), sizeof address_) == 0, "connect");
        require(send(session, frame, sizeof frame, 0) == sizeof frame, "send");
        require(recv(session, frame, sizeof frame, 0) == sizeof frame, "recv");
        close(session);
    }

private:
    static void serve(int session) {
        char frame[DM_HDC_HEADER_LEN + kPayload];
        require(recv(session, frame, sizeof frame, 0) == sizeof frame, "recv");
        require(send(session, frame, sizeof frame, 0) == sizeof frame, "send");
        close(session);
    }
    const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address_); }

    sockaddr_un address_{};
    int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
};

// Both sides last as long as the process: their threads wait in accept4(2).
template<class Side>
void exchange(benchmark::State& state) {
    static Side& side = *new Side;
    char payload[kPayload] = {};
    bench::measure(state, kExchanges, [&] {
        for (int i = 0; i < kExchanges; ++i)
            side.exchange(payload);
    });
}

} // namespace

int main(int argc, char** argv) {
    bench::add("HDC exchange", "bare sockets", exchange<Bare>);
    bench::add("HDC exchange", "library", exchange<Framework>);
    return bench::run(argc, argv,
                      {{"HDC exchange, library against bare sockets", "HDC exchange/library",
                        "HDC exchange/bare sockets", 1.3}});
}
