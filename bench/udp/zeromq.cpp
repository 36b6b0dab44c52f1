#include "support/zeromq_exchange.h"
#include "udp/works.h"

namespace {

const bench::Peer peer("ZeroMQ",
                       [] { udp::add<bench::ZeroMqExchange>("ZeroMQ, TCP", "tcp://127.0.0.1:*"); });

} // namespace
