#include "self_loop/works.h"
#include "support/nng_exchange.h"

namespace {

const bench::Peer peer("nng", [] {
    using bench::NngExchange;
    constexpr const char* name = "nng, inproc";
    constexpr const char* endpoint = "inproc://bench";
    self_loop::add<bench::OneByOne<NngExchange>>(self_loop::kWaiting, name, 1, endpoint);
    self_loop::add<NngExchange>(self_loop::kChained, name, 1, endpoint);
});

} // namespace
