#include "support/nng_exchange.h"
#include "udp/works.h"

namespace {

const bench::Peer peer("nng",
                       [] { udp::add<bench::NngExchange>("nng, TCP", "tcp://127.0.0.1:0"); });

} // namespace
