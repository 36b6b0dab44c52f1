// The requests of the soak: to daemons, to the process itself, and over interfaces that come and
// go.
#ifndef SOAK_TRAFFIC_H
#define SOAK_TRAFFIC_H

#include "dm_msg_intf.h"
#include "endpoint.h"
#include "ledger.h"
#include "round.h"

#include <memory>
#include <string>
#include <vector>

namespace soak {

struct DestroyContext {
    void operator()(DM_CB_ST* dm_cb) const { dm_destroy(dm_cb); }
};
using Context = std::unique_ptr<DM_CB_ST, DestroyContext>;

// Requests to one daemon, from several threads over one interface.
class Line {
public:
    // Throws std::runtime_error when there is no interface for the URL.
    Line(const std::string& url, std::chrono::milliseconds pause);

    void begin(Round& round, int threads);
    Ledger& ledger() { return ledger_; }

private:
    Ledger ledger_; // outlives the context, whose callbacks use it
    Context context_;
    DM_INTF_ST* intf_;
    DM_ADDR_ST peer_;
    std::chrono::milliseconds pause_;
};

// Requests of the process to itself.
class SelfLoop {
public:
    SelfLoop();

    void begin(Round& round, int threads);
    Ledger& ledger() { return ledger_; }

private:
    Ledger ledger_;
    Context context_;
};

// Interfaces that are opened, used and removed, and contexts that are made and destroyed, while
// their requests are under way.
class Churn {
public:
    explicit Churn(const std::string& url);

    void begin(Round& round);
    Ledger& ledger() { return ledger_; }
    Json report() const;

private:
    void come_and_go(Random& random);
    void use_interface(DM_CB_ST& dm_cb, Random& random);
    std::vector<std::uint64_t> ask_some(DM_INTF_ST& intf, Random& random);
    void close_those_open(const std::vector<std::uint64_t>& numbers);
    DM_INTF_ST* open(DM_CB_ST& dm_cb);

    Ledger ledger_;
    example::Endpoint peer_;
    Counter contexts_ = 0;
    Counter interfaces_ = 0;
    Counter refused_ = 0; // of both
};

} // namespace soak

#endif
