// Requests of the framework, which matches their responses.
#ifndef DMCAT_REQUEST_LINK_H
#define DMCAT_REQUEST_LINK_H

#include "context.h"
#include "link.h"
#include "options.h"
#include "workers.h"

namespace dmcat {

// Over UDP the framework sends again and times out, too.
class UdpLink : public Link {
public:
    UdpLink(const Options& options, const std::shared_ptr<Inbox>& inbox);

    bool keeps_time() const override { return true; }
    int send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
             Sending sending) override;

private:
    const DM_ADDR_ST peer_;
    Inbox& inbox_; // the context holds it
    const std::shared_ptr<Context> context_;
};

// Over HDC a sending is a whole exchange, which may wait for most of a minute for a server and for
// its answer. So it is a worker's, and never the poll thread's.
class HdcLink : public Link {
public:
    HdcLink(const Options& options, const std::shared_ptr<Inbox>& inbox);

    int send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
             Sending sending) override;

private:
    const DM_ADDR_ST peer_;
    const std::shared_ptr<Inbox> inbox_;
    const std::shared_ptr<Context> context_;
    Workers senders_;
};

} // namespace dmcat

#endif
