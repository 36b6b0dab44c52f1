// Sockets of nng, and contexts on them with asynchronous calls.
#pragma once

#include "support/require.h"

#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

namespace bench {

inline nng_msg* make_message(const void* data, size_t size) {
    nng_msg* message = nullptr;
    require(nng_msg_alloc(&message, size) == 0, "nng_msg_alloc");
    std::memcpy(nng_msg_body(message), data, size);
    return message;
}

class NngSocket {
public:
    explicit NngSocket(int (*open)(nng_socket*)) { require(open(&socket_) == 0, "nng_open"); }
    NngSocket(const NngSocket&) = delete;
    NngSocket& operator=(const NngSocket&) = delete;
    ~NngSocket() { nng_close(socket_); }

    nng_socket get() const { return socket_; }

    // @return the address to connect to.
    std::string listen(const std::string& address) const {
        nng_listener listener;
        require(nng_listen(socket_, address.c_str(), &listener, 0) == 0, "nng_listen");
        char* bound = nullptr;
        require(nng_listener_get_string(listener, NNG_OPT_URL, &bound) == 0, "nng_listener_get");
        std::string copy = bound;
        nng_strfree(bound);
        return copy;
    }
    void connect(const std::string& address) const {
        require(nng_dial(socket_, address.c_str(), nullptr, 0) == 0, "nng_dial");
    }

private:
    nng_socket socket_{};
};

// Calls a function when what was begun has ended. The socket must outlive it.
class NngContext {
public:
    NngContext(const NngSocket& socket, std::function<void()> on_end) : on_end_(std::move(on_end)) {
        require(nng_ctx_open(&context_, socket.get()) == 0, "nng_ctx_open");
        const auto call = [](void* self) { static_cast<NngContext*>(self)->on_end_(); };
        require(nng_aio_alloc(&aio_, call, this) == 0, "nng_aio_alloc");
    }
    NngContext(const NngContext&) = delete;
    NngContext& operator=(const NngContext&) = delete;
    ~NngContext() {
        is_open_ = false;
        nng_ctx_close(context_);
        nng_aio_stop(aio_);
        nng_aio_free(aio_);
    }

    bool is_open() const { return is_open_; }

    // Waits until the function has returned that was called last.
    void await_idle() { nng_aio_wait(aio_); }

    void send(nng_msg* message) {
        receives_ = false;
        nng_aio_set_msg(aio_, message);
        nng_ctx_send(context_, aio_);
    }
    void receive() {
        receives_ = true;
        nng_ctx_recv(context_, aio_);
    }
    // @return what was received, which is the caller's; null when it was a send that has ended, or
    // the context closes.
    nng_msg* take_received() {
        require(nng_aio_result(aio_) == 0 || !is_open_, "nng_aio");
        return receives_ && nng_aio_result(aio_) == 0 ? nng_aio_get_msg(aio_) : nullptr;
    }

private:
    const std::function<void()> on_end_;
    std::atomic<bool> is_open_ = true;
    bool receives_ = false;
    nng_ctx context_{};
    nng_aio* aio_ = nullptr;
};

} // namespace bench
