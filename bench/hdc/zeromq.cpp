#include "hdc/works.h"
#include "support/zeromq_exchange.h"

namespace {

class Ipc : public bench::ZeroMqExchange {
public:
    Ipc() : ZeroMqExchange(1, "ipc://" + hdc::new_path()) {}
};

const bench::Peer peer("ZeroMQ", [] { hdc::add<Ipc>("ZeroMQ, ipc, one connection for all"); });

} // namespace
