/* A daemon against the installed library, in C as in C++: echoes what comes to a port that the system
 * chooses, which it prints, until SIGTERM. */
#include <dm_msg_intf.h>
#include <dm_udp.h>

#include <arpa/inet.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#ifdef __cplusplus /* CMake's users have the host layer beside it */
#include <platform_bounds.h>
#else
#define memcpy_s(dest, size, src, count) (memcpy(dest, src, count), 0)
#endif

static int on_request(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t user_data_len) {
    (void)user_data, (void)user_data_len;
    if (msg->data.data_len > DM_MAX_DATA_LEN) /* the peer decides the length */
        return 0;
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

static int open_udp(DM_CB_ST* dm) {
    struct sockaddr_in sa;
    socklen_t len = sizeof sa;
    DM_ADDR_ST addr;
    DM_INTF_ST* intf = NULL;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memset(&addr, 0, sizeof addr);
    addr.kind = DM_KIND_UDP;
    addr.family = DM_FAMILY_UDP;
    if (memcpy_s(addr.sa, sizeof addr.sa, &sa, sizeof sa) != 0 ||
        dm_udp_init(&intf, dm, NULL, &addr, NULL, 0) != 0 ||
        getsockname(intf->fd, (struct sockaddr*)&sa, &len) != 0)
        return -1;
    printf("%d\n", ntohs(sa.sin_port));
    return fflush(stdout);
}

int main(void) {
    int signal = 0;
    int status = 1;
    sigset_t end;
    DM_CB_ST* dm = NULL;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, NULL);

    if (dm_init(&dm) != 0)
        return 1;
    if (dm_cmd_register(dm, on_request, NULL, NULL, 1) == 0 && open_udp(dm) == 0)
        status = sigwait(&end, &signal);
    dm_destroy(dm);
    return status;
}
