#include "link.h"

#include "output.h"

#include <exception>
#include <string>
#include <utility>

namespace dmcat {

Reply not_sent(std::uint32_t sequence, int status) {
    Reply reply;
    reply.kind = Reply::Kind::not_sent;
    reply.sequence = sequence;
    reply.status = status;
    return reply;
}

void put_guarded(Inbox& inbox, const std::function<std::optional<Reply>()>& step) {
    try {
        if (auto reply = step())
            inbox.put(std::move(*reply));
    } catch (const std::exception& error) {
        print_error(std::string("a reply is lost: ") + error.what());
        inbox.stop();
    }
}

} // namespace dmcat
