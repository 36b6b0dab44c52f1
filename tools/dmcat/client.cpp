#include "client.h"

#include "ipc_client.h"
#include "request_client.h"

namespace dmcat {

std::unique_ptr<Client> Client::open(const Options& options) {
    if (options.endpoint.transport() == Endpoint::Transport::ipc)
        return std::make_unique<IpcClient>(options);
    return std::make_unique<RequestClient>(options);
}

} // namespace dmcat
