// Requests through an interface of the library. The callback of one answer sends the next.
#pragma once

#include "dm_msg_intf.h"

#include "support/payload.h"
#include "support/require.h"
#include "support/signal.h"
#include "support/window.h"

namespace bench {

class Requester {
public:
    // @param depth the most that are under way at a time; with 1, each run(1) is a caller that
    // waits.
    Requester(int depth, DM_INTF_ST* intf, const DM_ADDR_ST& to, uint32_t to_len)
        : window_(depth), intf_(intf), to_(to), to_len_(to_len) {}

    // The first request's answer opens the window, so that all others are sent by the poll thread.
    void run(int operations) {
        window_.begin(operations);
        require(window_.opens(), "nothing to send");
        send();
        done_.await();
    }

    // The command handler of the other end.
    static int echo(DM_INTF_ST* intf, DM_MSG_ST* msg, void* /*user_data*/, int32_t /*len*/) {
        return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
    }

private:
    // What a request's callback is given.
    struct Sent {
        Requester* self;
        uint64_t number;
    };

    void send() {
        Sent sent{this, ++sent_};
        Payload payload = payload_of(sent.number);
        DM_DATA_ST data{sizeof(payload), payload.data()};
        require(dm_send_req(intf_, &to_, to_len_, &data, on_answer, &sent, sizeof(sent)) == 0,
                "dm_send_req");
    }
    static int on_answer(DM_INTF_ST* /*intf*/, DM_MSG_ST* msg, void* user_data, int32_t /*len*/) {
        const Sent sent = *static_cast<const Sent*>(user_data);
        require(is_payload_of(sent.number, msg->data.data, msg->data.data_len), "a wrong answer");
        Requester& self = *sent.self;
        const bool is_last = self.window_.answered();
        while (self.window_.opens())
            self.send();
        if (is_last)
            self.done_.give();
        return 0;
    }

    Window window_;
    DM_INTF_ST* const intf_;
    DM_ADDR_ST to_;
    const uint32_t to_len_;
    uint64_t sent_ = 0;
    Signal done_;
};

} // namespace bench
