// Requests over the device manager's channel. It carries neither types nor identities: an answer
// arrives as a request of its own and is matched by dmond's header.
#ifndef DMCAT_IPC_CLIENT_H
#define DMCAT_IPC_CLIENT_H

#include "client.h"
#include "context.h"

#include <map>
#include <mutex>

namespace dmcat {

class IpcClient : public Client {
public:
    explicit IpcClient(const Options& options);

    // The message begins with dmond's header.
    void send(std::uint32_t sequence, std::string message) override;

private:
    struct Pending {
        std::uint32_t sequence;
        std::string message;
        Clock::time_point time;
        std::int32_t retry_left;
    };

    bool send_message(std::string& message);
    bool arm_timer(std::uint32_t wire_sequence);
    void receive(const DM_MSG_ST& msg);
    void time_out(std::uint32_t wire_sequence);
    void put(Reply::Kind kind, const Pending& pending, std::string data = {});
    static int on_message(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t user_data_len);
    static int on_timer(std::uint32_t interval_ms, std::int32_t elapsed_ms, void* user_data,
                        std::uint32_t user_data_len);

    std::string url_;
    DM_ADDR_ST peer_;
    std::int32_t retry_;
    std::uint32_t timeout_ms_;
    std::uint32_t first_sequence_;             // others on the channel count from elsewhere
    std::mutex mutex_;                         // guards pending_
    std::map<std::uint32_t, Pending> pending_; // by the sequence number on the channel
    Context context_;                          // its callbacks use what is above
    DM_INTF_ST& intf_;
};

} // namespace dmcat

#endif
