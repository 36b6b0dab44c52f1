// A socket of ZeroMQ, in a context of its own unless it is given another's.
#pragma once

#include "support/require.h"

#include <zmq.h>

#include <memory>
#include <string>

namespace bench {

class ZeroMq {
public:
    explicit ZeroMq(int type) : ZeroMq(make_context(), type) {}
    ZeroMq(const ZeroMq& of, int type) : ZeroMq(of.context_, type) {}
    ZeroMq(const ZeroMq&) = delete;
    ZeroMq& operator=(const ZeroMq&) = delete;
    ~ZeroMq() { zmq_close(socket_); }

    // @return the address to connect to.
    std::string bind(const std::string& address) {
        require(zmq_bind(socket_, address.c_str()) == 0, "zmq_bind");
        char bound[256];
        size_t size = sizeof(bound);
        require(zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, bound, &size) == 0, "zmq_getsockopt");
        return bound;
    }
    void connect(const std::string& address) {
        require(zmq_connect(socket_, address.c_str()) == 0, "zmq_connect");
    }
    void send(const void* data, size_t size, int flags = 0) {
        require(zmq_send(socket_, data, size, flags) == static_cast<int>(size), "zmq_send");
    }
    // @return the size of the message, which is cut to the buffer's.
    size_t receive(void* buffer, size_t size) {
        const int got = zmq_recv(socket_, buffer, size, 0);
        require(got >= 0, "zmq_recv");
        return static_cast<size_t>(got);
    }

private:
    using Context = std::shared_ptr<void>;

    static Context make_context() { return {zmq_ctx_new(), zmq_ctx_term}; }

    ZeroMq(Context context, int type)
        : context_(std::move(context)), socket_(zmq_socket(context_.get(), type)) {
        const int none = 0;
        zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof(none));
        zmq_setsockopt(socket_, ZMQ_SNDHWM, &none, sizeof(none)); // no bound
        zmq_setsockopt(socket_, ZMQ_RCVHWM, &none, sizeof(none));
    }

    const Context context_;
    void* const socket_;
};

} // namespace bench
