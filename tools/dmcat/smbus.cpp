#include "smbus.h"

#include "dm_smbus.h"
#include "exit_status.h"
#include "output.h"
#include "payload.h"

#include <array>
#include <memory>
#include <stdexcept>
#include <unistd.h>

namespace dmcat {

namespace {

class Bus {
public:
    Bus() {
        if (fd_ < 0)
            throw std::runtime_error("cannot open the SMBus, /dev/i2c-0");
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus() { close(fd_); }

    void send(const std::string& block) const {
        // Not even an empty block may be null.
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(block.c_str());
        if (smbus_msg_send(fd_, bytes, static_cast<std::uint32_t>(block.size())) != 0)
            throw std::runtime_error("cannot send to the SMBus");
    }

    std::string receive() const {
        std::array<std::uint8_t, DM_SMBUS_BLOCK_MAX> block{};
        std::uint32_t len = 0;
        if (smbus_msg_recv(fd_, block.data(), &len) != 0)
            throw std::runtime_error("cannot receive from the SMBus");
        return {block.begin(), block.begin() + len};
    }

private:
    int fd_ = smbus_save_open();
};

} // namespace

int run_smbus(const Options& options) {
    const Bus bus;
    if (options.smbus == Options::Smbus::send)
        bus.send(options.payload);
    else
        print(to_hex(bus.receive()) + "\n");
    return kAnswered;
}

} // namespace dmcat
