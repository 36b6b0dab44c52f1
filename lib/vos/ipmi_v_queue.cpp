#include "ipmi_v_queue.h"

#include "base/atomic_field.h"
#include "base/cancellation.h"
#include "base/log.h"
#include "base/memory.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

constinit dm::SubjectLog queue_log;

constexpr long kMessageType = 1;
constexpr std::size_t kMessageSize = sizeof(void*);
constexpr std::size_t kTagSize = 8;
constexpr int32_t kAttemptMs = 100;

// The operations that log through their parts.
constexpr const char* kCreate = "vos_private_queue_create";
constexpr const char* kWrite = "vos_queue_asy_write";
constexpr const char* kRead = "vos_queue_read";
constexpr const char* kAsyRead = "vos_queue_asy_read";

// The kernel carries a block from its writer to its reader, out of the language's sight: an atomic
// store of its first byte by the one and a load by the other put the accesses in order.
void __publish(void* block) {
    auto& first = *static_cast<unsigned char*>(block);
    dm::store(first, first);
}

void __acquire(const void* block) {
    dm::load(*static_cast<const unsigned char*>(block));
}

// A message as msgsnd() and msgrcv() take it. It owns its block, a heap copy of the payload, and so
// releases it also where a thread is cancelled in a msgrcv() that has taken the message already.
struct Message {
    long type = kMessageType;
    void* block = nullptr;

    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message() {
        if (block == nullptr)
            return;
        __acquire(block);
        std::free(block);
    }
};
static_assert(sizeof(Message) == 2 * sizeof(void*));

// A queue that is removed unless it is kept.
class NewQueue {
public:
    explicit NewQueue(int qid) : qid_(qid) {}
    NewQueue(const NewQueue&) = delete;
    NewQueue& operator=(const NewQueue&) = delete;
    ~NewQueue() {
        if (qid_ != -1)
            msgctl(qid_, IPC_RMID, nullptr);
    }

    int get() const { return qid_; }
    int keep() { return std::exchange(qid_, -1); }

private:
    int qid_;
};

int __id(uint64_t qid) {
    return static_cast<int>(qid);
}

// Makes the queue's owner out of the name's first bytes, by which a queue can be told from others.
bool __tag_owner(msqid_ds& ds, const char* name) {
    char tag[kTagSize];
    if (memset_s(tag, sizeof(tag), 0, sizeof(tag)) != 0) {
        DM_LOG_ERROR_IN(queue_log, kCreate, "memset_s error\n");
        return false;
    }
    for (std::size_t i = 0; i < sizeof(tag) - 1 && name[i] != '\0'; ++i)
        tag[i] = name[i];
    ipc_perm& owner = ds.msg_perm;
    if (memcpy_s(&owner.uid, sizeof(owner.uid), tag, sizeof(owner.uid)) != 0) {
        DM_LOG_ERROR_IN(queue_log, kCreate, "memcpy_s error\n");
        return false;
    }
    if (memcpy_s(&owner.gid, sizeof(owner.gid), tag + sizeof(owner.uid), sizeof(owner.gid)) != 0) {
        DM_LOG_ERROR_IN(queue_log, kCreate, "memcpy_s error\n");
        return false;
    }
    return true;
}

// Copies the payload into the message's block. Gives 0 or a code of vos_queue_asy_write().
uint32_t __fill(Message& message, const void* data, std::size_t len) {
    using Step = dm::Duplicate::Step;
    dm::Duplicate copy = dm::duplicate(data, len, memcpy_s);
    switch (copy.failed) {
    case Step::none:
        message.block = copy.bytes.release();
        return 0;
    case Step::allocate:
        DM_LOG_ERROR_IN(queue_log, kWrite, "\r\ncan't alloc memory!\n");
        break;
    case Step::zero:
        DM_LOG_ERROR_IN(queue_log, kWrite, "memset_s fail: %d\n", copy.status);
        break;
    case Step::copy:
        DM_LOG_ERROR_IN(queue_log, kWrite, "memcpy_s error\n");
        break;
    }
    return VOS_QUEUE_FAILED;
}

int __send_round(int qid, const Message& message) {
    int sent = 0;
    do
        sent = msgsnd(qid, &message, kMessageSize, IPC_NOWAIT);
    while (sent == -1 && errno == EINTR);
    return sent;
}

// The queue owns the block once msgsnd() has succeeded. A thread that is cancelled just then, on
// the way back, would not know, and release a block that a reader will get.
int __send(int qid, Message& message) {
    const dm::CancellationOff off;
    __publish(message.block);
    int sent = __send_round(qid, message);
    if (sent == -1 && errno == EAGAIN)
        sent = __send_round(qid, message);
    if (sent == 0)
        message.block = nullptr;
    return sent;
}

// Gives the result of msgrcv(); the message has a block when that is the message's size.
ssize_t __receive(int qid, Message& message, int flags) {
    const ssize_t received = msgrcv(qid, &message, kMessageSize, kMessageType, flags);
    if (received == static_cast<ssize_t>(kMessageSize))
        __acquire(message.block);
    else
        message.block = nullptr; // some bytes that are no block of ours
    return received;
}

bool __is_message(ssize_t received) {
    return received == static_cast<ssize_t>(kMessageSize);
}

uint32_t __deliver(const char* operation, const Message& message, void* buf, uint32_t len) {
    if (memcpy_s(buf, len, message.block, len) != 0) {
        DM_LOG_ERROR_IN(queue_log, operation, "memcpy_s error\n");
        return VOS_QUEUE_REFUSED;
    }
    return len;
}

uint32_t __read_waiting(int qid, void* buf, uint32_t len) {
    Message message;
    ssize_t received = 0;
    do
        received = __receive(qid, message, 0);
    while (received == -1 && errno == EINTR);
    return __is_message(received) ? __deliver(kRead, message, buf, len) : VOS_QUEUE_REFUSED;
}

uint32_t __read_polling(int qid, int32_t attempts, void* buf, uint32_t len) {
    Message message;
    for (; attempts > 0; --attempts) {
        if (__is_message(__receive(qid, message, IPC_NOWAIT)))
            return __deliver(kRead, message, buf, len);
        usleep(kAttemptMs * 1000);
    }
    return VOS_QUEUE_TIMEOUT;
}

} // namespace

uint32_t vos_private_queue_create(const char* name, uint64_t depth, int32_t* out_qid, uint32_t mode,
                                  uint64_t extra) {
    if (name == nullptr || depth == 0 || out_qid == nullptr || extra == 0)
        return VOS_QUEUE_INVALID;
    if (mode != 10 && mode != 9)
        return VOS_QUEUE_INVALID;
    NewQueue queue(msgget(IPC_PRIVATE, IPC_CREAT | 0600));
    if (queue.get() == -1) {
        DM_LOG_ERROR(queue_log, "\r\ncreat queue error!! errno is 0x%x.",
                     static_cast<unsigned>(errno));
        return VOS_QUEUE_FAILED;
    }
    msqid_ds ds{};
    if (msgctl(queue.get(), IPC_STAT, &ds) == -1) {
        DM_LOG_ERROR(queue_log, "\r\nget queue stat error!! errno is 0x%x.",
                     static_cast<unsigned>(errno));
        return VOS_QUEUE_FAILED;
    }
    ds.msg_qbytes = depth * kMessageSize;
    if (!__tag_owner(ds, name))
        return VOS_QUEUE_FAILED;
    const int qid = queue.keep();
    if (msgctl(qid, IPC_SET, &ds) == -1) {
        DM_LOG_ERROR(queue_log, "\r\nset queue stat error!! errno is 0x%x.",
                     static_cast<unsigned>(errno));
        return VOS_QUEUE_FAILED;
    }
    *out_qid = qid;
    return 0;
}

uint32_t vos_queue_asy_write(uint64_t qid, const void* data, uint32_t len) {
    if (__id(qid) == -1 || data == nullptr || len == 0)
        return VOS_QUEUE_INVALID;
    Message message;
    if (const uint32_t code = __fill(message, data, len); code != 0)
        return code;
    return static_cast<uint32_t>(__send(__id(qid), message));
}

uint32_t vos_queue_read(uint64_t qid, int32_t timeout_ms, void* buf, uint32_t len) {
    if (buf == nullptr || len == 0)
        return VOS_QUEUE_REFUSED;
    return timeout_ms == 0 ? __read_waiting(__id(qid), buf, len)
                           : __read_polling(__id(qid), timeout_ms / kAttemptMs, buf, len);
}

uint32_t vos_queue_asy_read(uint64_t qid, void* buf, uint32_t len) {
    if (buf == nullptr || len == 0)
        return VOS_QUEUE_REFUSED;
    Message message;
    const ssize_t received = __receive(__id(qid), message, IPC_NOWAIT);
    return __is_message(received) ? __deliver(kAsyRead, message, buf, len)
                                  : static_cast<uint32_t>(received);
}

int vos_queue_delete(uint64_t qid) {
    msqid_ds ds{};
    return msgctl(__id(qid), IPC_RMID, &ds);
}
