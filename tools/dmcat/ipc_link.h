// Messages over the device manager's channel. It carries neither types nor identities: an answer
// arrives as a request of its own and is matched by dmond's header.
#ifndef DMCAT_IPC_LINK_H
#define DMCAT_IPC_LINK_H

#include "context.h"
#include "link.h"
#include "options.h"

namespace dmcat {

class IpcLink : public Link {
public:
    IpcLink(const Options& options, const std::shared_ptr<Inbox>& inbox);

    // The message begins with dmond's header.
    int send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
             Sending sending) override;

private:
    // What the poll thread uses; the context holds it.
    struct Incoming {
        std::shared_ptr<Inbox> inbox;
        std::uint32_t first_sequence; // others on the channel count from elsewhere
        std::string url;

        std::optional<Reply> take(const DM_MSG_ST& msg) const;
    };

    static int on_message(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t user_data_len);

    const DM_ADDR_ST peer_;
    const std::shared_ptr<const Incoming> incoming_;
    const std::shared_ptr<Context> context_;
};

} // namespace dmcat

#endif
