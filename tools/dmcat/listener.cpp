#include "listener.h"

#include "context.h"
#include "exit_status.h"
#include "mailbox.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>

namespace dmcat {

namespace {

struct Echoed {};
using Echoes = Mailbox<Echoed>;

int echo(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t /*user_data_len*/) {
    // A length above the limit is the peer's word, there are no such bytes to give back.
    if (msg->data.data_len > DM_MAX_DATA_LEN ||
        dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id) != 0)
        return 0;
    // The caller is C: no exception may pass through it.
    try {
        (*static_cast<Echoes**>(user_data))->put({});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dmcat: an echo is not counted: %s\n", error.what());
    }
    return 0;
}

} // namespace

int run_listener(const Options& options) {
    const auto echoes = std::make_shared<Echoes>();
    const auto context = std::make_shared<Context>([echoes] { echoes->stop(); });
    context->handle_requests(echo, echoes.get());
    try {
        context->open(options.endpoint, Endpoint::Role::server, nullptr);
    } catch (const Interrupted&) {
        return kAnswered;
    }
    std::fprintf(stderr, "dmcat: listening on %s\n",
                 Endpoint::bound(context->interface()).url().c_str());

    std::uint64_t answered = 0;
    const std::uint64_t wanted = options.series ? options.count : 0;
    while ((wanted == 0 || answered < wanted) && echoes->take())
        ++answered;
    return kAnswered;
}

} // namespace dmcat
