#pragma once

#include "self_loop/works.h"
#include "support/poll_thread.h"
#include "support/requester.h"

#include <optional>

namespace self_loop {

class Library : public bench::System {
public:
    Library() {
        require(dm_init(&context_) == 0, "dm_init");
        require(dm_cmd_register(context_, bench::Requester::echo, nullptr, nullptr, 1) == 0,
                "dm_cmd_register");
        DM_ADDR_ST address{};
        address.kind = DM_KIND_SELFLOOP;
        address.family = DM_FAMILY_SELFLOOP;
        requester_.emplace(1, dm_get_intf(context_, "selfloop", 9), address, sizeof(address));
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() override { dm_destroy(context_); }

    void run(int operations) override { requester_->run(operations); }

private:
    DM_CB_ST* context_ = nullptr;
    std::optional<bench::Requester> requester_;
};

class RealTimeLibrary : public bench::System {
public:
    void run(int operations) override { library_.run(operations); }

private:
    const bench::RealTimeScope scope_;
    Library library_;
};

} // namespace self_loop
