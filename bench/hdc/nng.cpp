#include "hdc/works.h"
#include "support/nng_exchange.h"

namespace {

class Ipc : public bench::NngExchange {
public:
    Ipc() : NngExchange(1, "ipc://" + hdc::new_path()) {}
};

const bench::Peer peer("nng",
                       [] { hdc::add<bench::OneByOne<Ipc>>("nng, ipc, one connection for all"); });

} // namespace
