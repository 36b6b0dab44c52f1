#include "udp/event_loop.h"

#include <uv.h>

namespace {

using udp::Frame;
using udp::require;

// A handle, which the loop lets go of as it ends.
template<class T>
struct Closer {
    void operator()(T* handle) const {
        uv_close(reinterpret_cast<uv_handle_t*>(handle),
                 [](uv_handle_t* closed) { delete reinterpret_cast<T*>(closed); });
    }
};

template<class T>
using Handle = std::unique_ptr<T, Closer<T>>;

class Loop {
public:
    class Port;
    class Timer;

    explicit Loop(std::function<void()> on_wake) : on_wake_(std::move(on_wake)) {
        require(uv_loop_init(&loop_) == 0, "uv_loop_init");
        const auto call = [](uv_async_t* wake) { static_cast<Loop*>(wake->data)->on_wake_(); };
        require(uv_async_init(&loop_, wake_.get(), call) == 0, "uv_async_init");
        wake_->data = this;
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() {
        wake_.reset();
        uv_run(&loop_, UV_RUN_DEFAULT);
        require(uv_loop_close(&loop_) == 0, "uv_loop_close");
    }

    void run() { uv_run(&loop_, UV_RUN_DEFAULT); }
    void stop() { uv_stop(&loop_); }
    void wake() { uv_async_send(wake_.get()); }

private:
    const std::function<void()> on_wake_;
    uv_loop_t loop_{};
    Handle<uv_async_t> wake_{new uv_async_t{}};
};

class Loop::Port {
public:
    using Receiver = std::function<void(Frame&, const sockaddr_in&)>;

    Port(Loop& loop, size_t size, Receiver receiver) : size_(size), receiver_(std::move(receiver)) {
        require(uv_udp_init(&loop.loop_, udp_.get()) == 0, "uv_udp_init");
        udp_->data = this;
        const sockaddr_in any = udp::loopback();
        require(uv_udp_bind(udp_.get(), udp::generic(any), 0) == 0, "uv_udp_bind");
        udp::make_room(fd());
        require(uv_udp_recv_start(udp_.get(), give_buffer, receive) == 0, "uv_udp_recv_start");
    }

    sockaddr_in address() const { return udp::address_of(fd()); }

    void send(const Frame& frame, const sockaddr_in& to) const {
        auto* bytes = reinterpret_cast<char*>(const_cast<Frame*>(&frame));
        const uv_buf_t buffer = uv_buf_init(bytes, static_cast<unsigned>(size_));
        require(uv_udp_try_send(udp_.get(), &buffer, 1, udp::generic(to)) ==
                    static_cast<int>(size_),
                "uv_udp_try_send");
    }

private:
    int fd() const {
        uv_os_fd_t fd = -1;
        require(uv_fileno(reinterpret_cast<const uv_handle_t*>(udp_.get()), &fd) == 0, "uv_fileno");
        return fd;
    }
    static void give_buffer(uv_handle_t* handle, size_t /*suggested*/, uv_buf_t* buffer) {
        Frame& frame = static_cast<Port*>(handle->data)->frame_;
        *buffer = uv_buf_init(reinterpret_cast<char*>(&frame), sizeof(frame));
    }
    static void receive(uv_udp_t* handle, ssize_t size, const uv_buf_t* /*buffer*/,
                        const sockaddr* from, unsigned /*flags*/) {
        Port& self = *static_cast<Port*>(handle->data);
        if (from == nullptr) // nothing more to read
            return;
        require(size == static_cast<ssize_t>(self.size_), "a datagram of another size");
        self.receiver_(self.frame_, *reinterpret_cast<const sockaddr_in*>(from));
    }

    const size_t size_;
    const Receiver receiver_;
    Frame frame_{};
    Handle<uv_udp_t> udp_{new uv_udp_t{}};
};

class Loop::Timer {
public:
    explicit Timer(Loop& loop) {
        require(uv_timer_init(&loop.loop_, timer_.get()) == 0, "uv_timer_init");
    }
    void arm(uint64_t milliseconds) {
        const auto ring = [](uv_timer_t*) { require(false, "a time-out"); };
        require(uv_timer_start(timer_.get(), ring, milliseconds, 0) == 0, "uv_timer_start");
    }
    void cancel() { uv_timer_stop(timer_.get()); }

private:
    Handle<uv_timer_t> timer_{new uv_timer_t{}};
};

const bench::Peer peer("libuv", [] { udp::add_event_loop<Loop>("libuv"); });

} // namespace
