// Requests over UDP and HDC: the framework re-sends them and matches their responses.
#ifndef DMCAT_REQUEST_CLIENT_H
#define DMCAT_REQUEST_CLIENT_H

#include "client.h"
#include "context.h"

#include <atomic>
#include <list>
#include <thread>

namespace dmcat {

class RequestClient : public Client {
public:
    explicit RequestClient(const Options& options);
    ~RequestClient() noexcept(false) override;

    void send(std::uint32_t sequence, std::string message) override;

private:
    // A sending that waits for its answer by itself, as on HDC, and has a thread for it.
    struct Sending {
        std::atomic<bool> done{false};
        std::thread thread;
    };

    void send_now(std::uint32_t sequence, std::string& message);
    static int on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
                           int32_t user_data_len);

    DM_ADDR_ST peer_;
    bool send_blocks_;
    Context context_; // its callbacks use the mailbox
    DM_INTF_ST& intf_;
    std::list<Sending> sendings_;
};

} // namespace dmcat

#endif
