#include "self_loop/works.h"
#include "support/zeromq_exchange.h"

namespace {

// Its sockets have no callbacks: who waits is the caller.
const bench::Peer peer("ZeroMQ", [] {
    self_loop::add<bench::ZeroMqExchange>(self_loop::kWaiting, "ZeroMQ, inproc", 1,
                                          "inproc://bench");
});

} // namespace
