#include "ipc_link.h"

#include "dm_ipc.h"
#include "dmond_protocol.h"

#include <cstring>
#include <random>

namespace dmcat {

IpcLink::IpcLink(const Options& options, const std::shared_ptr<Inbox>& inbox)
    : peer_(options.endpoint.address()),
      incoming_(std::make_shared<Incoming>(Incoming{inbox, std::random_device()(), options.url})),
      context_(std::make_shared<Context>([incoming = incoming_] { incoming->inbox->stop(); })) {
    context_->handle_requests(on_message, incoming_.get());
    context_->open(options.endpoint, Endpoint::Role::client, nullptr);
}

int IpcLink::send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
                  Sending /*sending*/) {
    std::string text = *message;
    dmond::Header header{};
    std::memcpy(&header, text.data(), sizeof header);
    header.sequence = incoming_->first_sequence + sequence;
    std::memcpy(text.data(), &header, sizeof header);

    DM_INTF_ST& intf = context_->interface();
    DM_ADDR_ST peer = peer_;
    DM_DATA_ST data{static_cast<std::uint16_t>(text.size()), text.data()};
    return intf.send_msg(&intf, DM_MSG_REQ, &peer, DM_IPC_ADDR_LEN, &data, 0);
}

// Other messages on the channel are requests, and answers for others, whose numbers say nothing to
// the client.
std::optional<Reply> IpcLink::Incoming::take(const DM_MSG_ST& msg) const {
    dmond::Header header{};
    if (msg.data.data_len < sizeof header)
        return std::nullopt;
    std::memcpy(&header, msg.data.data, sizeof header);
    if ((header.code & dmond::kAnswerMark) == 0)
        return std::nullopt;
    header.code &= ~dmond::kAnswerMark;
    header.sequence -= first_sequence;
    Reply reply;
    reply.sequence = header.sequence;
    reply.from = url;
    reply.data.assign(static_cast<const char*>(msg.data.data), msg.data.data_len);
    std::memcpy(reply.data.data(), &header, sizeof header);
    return reply;
}

int IpcLink::on_message(DM_INTF_ST* /*intf*/, DM_MSG_ST* msg, void* user_data,
                        int32_t /*user_data_len*/) {
    const Incoming& incoming = **static_cast<const Incoming**>(user_data);
    put_guarded(*incoming.inbox, [&] { return incoming.take(*msg); });
    return 0;
}

} // namespace dmcat
