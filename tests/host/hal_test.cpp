/** The host's HAL: channels between the threads and processes of this machine. */
#include "platform_hal_codes.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
constexpr int32_t device = 7;
constexpr auto background = std::launch::async;

/** A code of the HAL's own, after which the library does not try again. */
bool is_final(int32_t code) {
    return code != 0 && code != HAL_HDC_TIMEOUT && code != HAL_HDC_NOT_READY;
}

int32_t send(HDC_SESSION session, std::string text, uint32_t timeout_ms = 60'000) {
    HAL_HDC_MSG* msg = nullptr;
    drvHdcAllocMsg(session, &msg, 1);
    EXPECT_EQ(drvHdcAddMsgBuffer(msg, text.data(), static_cast<int32_t>(text.size())), 0);
    const int32_t code = halHdcSend(session, msg, HAL_HDC_WAIT_TIMEOUT, timeout_ms);
    drvHdcFreeMsg(msg);
    return code;
}

int32_t receive(HDC_SESSION session, std::string* text, uint32_t timeout_ms) {
    HAL_HDC_MSG* msg = nullptr;
    int32_t value = 0;
    char* bytes = nullptr;
    int32_t code = drvHdcAllocMsg(session, &msg, 1);
    if (code == 0)
        code = halHdcRecv(session, msg, 1, HAL_HDC_WAIT_TIMEOUT, &value, timeout_ms);
    if (drvHdcGetMsgBuffer(msg, 0, &bytes, &value) == 0)
        text->assign(bytes, static_cast<size_t>(value));
    drvHdcFreeMsg(msg);
    return code;
}

/** Awaits that every other thread waits for something. */
void await_the_others() {
    std::string state;
    for (const auto& task : fs::directory_iterator("/proc/self/task"))
        if (task.path().filename() != std::to_string(getpid()))
            while (std::ifstream(task.path() / "stat") >> state >> state >> state && state != "S")
                ;
}

/** Sets how many descriptors the process may have, and gives how many it might. */
rlim_t limit_descriptors(rlim_t most) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    std::swap(limit.rlim_cur, most);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    return most;
}

struct Hal : testing::Test {
    Hal() {
        mkdtemp(root.data());
        directory = root + '/' + std::string(150, 'd'); // more than fits an address
        setenv("DM_HAL_DIR", directory.c_str(), 1);
        EXPECT_EQ(drvHdcClientCreate(&client, 300, 0, 0), 0);
    }
    ~Hal() override {
        drvHdcSessionClose(near);
        drvHdcSessionClose(far);
        drvHdcServerDestroy(server);
        drvHdcClientDestroy(client);
        fs::remove_all(root);
        unsetenv("DM_HAL_ALLOW_UIDS");
        unsetenv("XDG_RUNTIME_DIR");
    }
    int32_t serve() { return drvHdcServerCreate(device, 0, &server); }
    int32_t connect() { return drvHdcSessionConnect(0, device, client, &near); }
    int32_t accept() { return drvHdcSessionAccept(server, &far); }
    bool open() { return serve() == 0 && connect() == 0 && accept() == 0; }
    static int32_t peer_of(HDC_SESSION session) {
        int32_t uid = -1;
        return halHdcGetSessionAttr(session, HAL_HDC_ATTR_UID, &uid) == 0 ? uid : -1;
    }
    mode_t mode_of(const std::string& name) {
        struct stat status = {};
        return lstat((directory + name).c_str(), &status) == 0 ? status.st_mode : 0;
    }
    int logged_of(const std::string& end) { return support::logged('E', directory + end + '\n'); }
    bool passes(HDC_SESSION from, HDC_SESSION to, const std::string& sent) {
        return send(from, sent) == 0 && receive(to, &text, 60'000) == 0 && text == sent;
    }

    std::string root = fs::temp_directory_path() / "hal_test.XXXXXX";
    std::string directory, text;
    HDC_SERVER server = 0;
    HDC_CLIENT client = 0;
    HDC_SESSION near = 0, far = 0;
};

TEST(HalFirst, CallsThatTakeNoMemoryNeedNone) {
    int32_t value = 0;
    const auto calls = [&] {
        drvHdcServerDestroy(1), drvHdcClientDestroy(1);
        drvHdcSessionClose(1), drvHdcSetSessionReference(1);
        halHdcGetSessionAttr(1, HAL_HDC_ATTR_UID, &value);
    };
    EXPECT_EQ(support::fail_each(support::Call::malloc, calls), 0);
}

TEST_F(Hal, AFewUsersLeaveRoomForOthers) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    setenv("DM_HAL_ALLOW_UIDS", "0,65533,65534", 1);
    ASSERT_TRUE(serve() == 0 && chmod(root.c_str(), 0711) == 0);
    ASSERT_EQ(chmod(directory.c_str(), 0711), 0);
    const pid_t others = fork();
    if (others == 0) {
        for (uid_t i = 0; i < 100; ++i)
            if (seteuid(0) != 0 || seteuid(65533 + i / 50) != 0 || connect() != 0)
                _exit(1);
        alarm(10);
        pause();
    }
    const rlim_t before = limit_descriptors(200); // a quarter for a user, half for all
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(accept(), 0);
    EXPECT_TRUE(connect() == 0 && accept() == 0 && passes(near, far, "of a third user"));
    limit_descriptors(before);
    kill(others, SIGKILL);
    EXPECT_EQ(wait(nullptr), others);
}

TEST_F(Hal, MessagesGoBothWaysUntilTheTimeIsOverOrTheSessionCloses) {
    ASSERT_TRUE(open());
    for (const size_t length : {1U, 4126U, 8192U}) {
        EXPECT_TRUE(passes(near, far, std::string(length, 'x')));
        EXPECT_TRUE(passes(far, near, std::string(length, 'y')));
    }
    EXPECT_EQ(receive(near, &text, 1), HAL_HDC_TIMEOUT);
    int32_t code = 0;
    for (int sent = 0; code == 0 && sent < 10'000; ++sent)
        code = send(near, "never read", 1);
    EXPECT_EQ(code, HAL_HDC_TIMEOUT);
    EXPECT_EQ(send(far, "the last"), 0);
    EXPECT_EQ(drvHdcSessionClose(far), 0);
    EXPECT_EQ(receive(near, &text, 60'000), 0) << "although the peer left messages unread";
    EXPECT_TRUE(is_final(receive(near, &text, 60'000)) && is_final(send(near, "to nobody")));
    ASSERT_TRUE(connect() == 0 && accept() == 0);
    auto receiving = std::async(background, receive, far, &text, 60'000);
    await_the_others();
    EXPECT_EQ(drvHdcSessionClose(far), 0);
    EXPECT_TRUE(is_final(receiving.get()));
}

TEST_F(Hal, ADeviceIdHasOneLiveServer) {
    int status = 0;
    if (fork() == 0)
        _exit(serve() == 0 ? raise(SIGKILL) : 1);
    EXPECT_TRUE(wait(&status) > 0 && WIFSIGNALED(status));
    EXPECT_EQ(connect(), HAL_HDC_NOT_READY);
    EXPECT_EQ(serve(), 0) << "in place of the killed one";
    if (fork() == 0)
        _exit(drvHdcServerDestroy(server));
    EXPECT_TRUE(wait(&status) > 0 && status == 0);
    int32_t code = 0;
    std::vector<HDC_SESSION> ends;
    for (; code == 0 && ends.size() < 290; ends.push_back(near))
        code = connect();
    EXPECT_EQ(code, HAL_HDC_NOT_READY) << "too many wait";
    auto waiting = std::async(background, [this] { return connect(); });
    await_the_others();
    EXPECT_TRUE(accept() == 0 && waiting.get() == 0) << "waits for a place";
    std::for_each(ends.begin(), ends.end(), drvHdcSessionClose);
    EXPECT_TRUE(accept() == 0 && connect() == 0 && drvHdcSessionClose(far) == 0);
    for (const auto& file : fs::directory_iterator(directory))
        fs::remove(file);
    EXPECT_EQ(drvHdcServerCreate(device, 0, &far), HAL_ERR_SERVER_EXISTS) << "no file holds it";
    EXPECT_EQ(drvHdcServerDestroy(server), 0);

    ASSERT_EQ(mkdir((directory + "/unfinished-7").c_str(), 0700), 0);
    std::ofstream(directory + "/unfinished-7/hdc-7") << "what a killed server left";
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    for (int spare = 1; spare < 6; ++spare) {
        const rlim_t before = limit_descriptors(static_cast<rlim_t>(lowest + spare));
        drvHdcServerCreate(device + 1, 0, &far);
        limit_descriptors(before);
        drvHdcServerDestroy(far);
        EXPECT_TRUE(serve() == 0 && drvHdcServerDestroy(server) == 0) << spare;
    }
    EXPECT_TRUE(fs::is_empty(directory));
    ASSERT_TRUE(open());
    auto accepting = std::async(background, drvHdcSessionAccept, server, &server);
    await_the_others();
    EXPECT_EQ(drvHdcServerDestroy(server), 0);
    EXPECT_TRUE(is_final(accepting.get()));
    EXPECT_TRUE(connect() == HAL_HDC_NOT_READY && passes(near, far, "still open"));
}

TEST_F(Hal, AClientGoesWhereItsDirectoryIsNow) {
    const auto meets = [&] {
        const bool is_met = connect() == 0 && accept() == 0 && passes(near, far, "met");
        return is_met && drvHdcSessionClose(near) == 0 && drvHdcSessionClose(far) == 0;
    };
    const std::string moved = root + "/moved";
    ASSERT_TRUE(serve() == 0 && meets());
    fs::rename(directory, moved);
    EXPECT_EQ(connect(), HAL_HDC_NOT_READY) << "although the server lives, elsewhere";
    fs::create_directory_symlink(moved, directory);
    EXPECT_EQ(connect(), HAL_ERR_BAD_DIRECTORY);
    fs::remove(directory);
    fs::rename(moved, directory);
    EXPECT_TRUE(meets());

    EXPECT_EQ(drvHdcServerDestroy(server), 0);
    fs::remove_all(directory);
    EXPECT_EQ(connect(), HAL_HDC_NOT_READY);
    EXPECT_TRUE(serve() == 0 && meets()) << "made anew";

    const HDC_SERVER first = server;
    setenv("DM_HAL_DIR", moved.c_str(), 1);
    EXPECT_TRUE(serve() == 0 && meets()) << "the one that is named now";
    EXPECT_EQ(drvHdcServerDestroy(first), 0);
}

TEST_F(Hal, AForkedChildSharesWhatIsOpen) {
    ASSERT_TRUE(open());
    const pid_t child = fork();
    if (child == 0) {
        if (connect() == 0 && send(near, "from the child") == 0)
            sleep(60);
        _exit(1);
    }
    EXPECT_EQ(drvHdcSessionClose(near), 0);
    EXPECT_EQ(receive(far, &text, 60'000), HAL_ERR_PEER_GONE) << "the child has it open, too";
    EXPECT_EQ(drvHdcSessionClose(far), 0);
    ASSERT_TRUE(accept() == 0 && receive(far, &text, 60'000) == 0);
    EXPECT_EQ(text, "from the child");
    kill(child, SIGKILL);
    EXPECT_EQ(wait(nullptr), child);
}

TEST_F(Hal, SessionsThatGetNoAnswerLeaveRoomForOthers) {
    const rlim_t before = limit_descriptors(320);
    const auto talk = [&] { return passes(near, far, "read") && send(near, "never read") == 0; };
    ASSERT_TRUE(open() && talk());
    const HDC_SESSION unanswered = far;
    std::vector<HDC_SESSION> ends = {near};
    while (ends.size() < 80 && connect() == 0 && accept() == 0 && talk())
        ends.push_back(near);
    auto accepting = std::async(background, drvHdcSessionAccept, server, &far);
    EXPECT_EQ(connect(), 0);
    EXPECT_EQ(receive(near, &text, 60'000), HAL_ERR_PEER_GONE) << "a quarter of the descriptors";
    for (const HDC_SESSION end : ends)
        drvHdcSessionClose(end);
    ASSERT_TRUE(connect() == 0 && accepting.get() == 0);
    EXPECT_TRUE(passes(near, far, "room is made by those whose peer has gone"));
    EXPECT_EQ(receive(unanswered, &text, 1), HAL_ERR_PEER_GONE);
    EXPECT_EQ(peer_of(unanswered), static_cast<int32_t>(geteuid()));
    EXPECT_EQ(drvHdcSessionClose(unanswered), 0);
    EXPECT_TRUE(drvHdcSessionClose(unanswered) == HAL_ERR_BAD_HANDLE && peer_of(unanswered) < 0);

    drvHdcSessionClose(near);
    for (int i = 0; i < 40; ++i)
        EXPECT_TRUE(connect() == 0 && accept() == 0 && drvHdcSessionClose(near) == 0);
    std::vector<int> others;
    while (others.empty() || others.back() >= 0)
        others.push_back(dup(STDIN_FILENO));
    int32_t code = 0;
    support::fail_each(support::Call::malloc, [&] {
        drvHdcSessionClose(near);
        code = connect() == 0 ? accept() : HAL_ERR_NO_MEMORY;
        EXPECT_TRUE(code == 0 || is_final(code)) << "no exception: " << code;
    });
    EXPECT_EQ(code, 0) << "although no descriptor was left";
    std::for_each(others.begin(), others.end(), close);
    limit_descriptors(before);
}

TEST_F(Hal, OnlyOpenHandlesAreTaken) {
    ASSERT_TRUE(open());
    const HDC_SESSION closed = near;
    HAL_HDC_MSG* msg = nullptr;
    int32_t value = 0;
    ASSERT_EQ(drvHdcAllocMsg(closed, &msg, 1), 0);
    ASSERT_EQ(drvHdcAddMsgBuffer(msg, root.data(), 1), 0);
    ASSERT_TRUE(drvHdcSessionClose(closed) == 0 && connect() == 0);
    for (const HDC_SESSION none : {HDC_SESSION{0}, closed, server, client, UINT64_MAX}) {
        EXPECT_TRUE(is_final(receive(none, &text, 1)) && is_final(drvHdcSessionClose(none)));
        EXPECT_TRUE(is_final(halHdcSend(none, msg, HAL_HDC_WAIT_TIMEOUT, 1)));
        EXPECT_TRUE(is_final(halHdcRecv(none, msg, 1, HAL_HDC_WAIT_TIMEOUT, &value, 1)));
        EXPECT_TRUE(is_final(halHdcGetSessionAttr(none, HAL_HDC_ATTR_UID, &value)));
        EXPECT_TRUE(is_final(drvHdcSetSessionReference(none)));
    }
    EXPECT_TRUE(is_final(drvHdcServerDestroy(near)) && is_final(drvHdcClientDestroy(near)));
    EXPECT_TRUE(is_final(drvHdcSessionAccept(client, &far)));
    EXPECT_TRUE(is_final(drvHdcSessionConnect(0, device, server, &near)));
    drvHdcFreeMsg(msg);
}

TEST_F(Hal, OtherUsersNeedLeaveToTalkAndOwnNoDirectory) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    setenv("DM_HAL_ALLOW_UIDS", "0,65534", 1);
    ASSERT_TRUE(serve() == 0 && chmod(root.c_str(), 0711) == 0);
    ASSERT_EQ(chmod(directory.c_str(), 0711), 0);
    EXPECT_EQ(mode_of("/hdc-7"), S_IFSOCK | 01666U) << "not to be cleaned away";
    setenv("DM_HAL_ALLOW_UIDS", "65534", 1);
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_EQ(connect(), HAL_ERR_BAD_DIRECTORY) << "the directory is another's";
    ASSERT_EQ(seteuid(0), 0);
    for (const auto& [listed, accepted] :
         {std::pair("6553,34,0", 0), std::pair("0,65534", 65534)}) {
        setenv("DM_HAL_ALLOW_UIDS", listed, 1);
        ASSERT_TRUE(seteuid(65534) == 0 && connect() == 0 && seteuid(0) == 0);
        ASSERT_TRUE(connect() == 0 && accept() == 0);
        EXPECT_EQ(peer_of(far), accepted) << "the first that is allowed";
        EXPECT_EQ(drvHdcSessionClose(far), 0);
    }
    ASSERT_EQ(chown(directory.c_str(), 65534, 0), 0);
    EXPECT_EQ(drvHdcServerCreate(device + 1, 0, &far), HAL_ERR_BAD_DIRECTORY);
    EXPECT_EQ(devdrv_open_device_manager(), -HAL_ERR_BAD_DIRECTORY);
    EXPECT_EQ(connect(), HAL_ERR_REFUSED) << "root's server, where user 65534 can lay links";
    fs::rename(directory, root + "/dm_hal");
    setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
    unsetenv("DM_HAL_DIR");
    EXPECT_EQ(connect(), HAL_ERR_BAD_DIRECTORY) << "nobody has named another's directory";
}

TEST_F(Hal, ARefusalIsLoggedOnceWithPlaceAndReason) {
    EXPECT_TRUE(connect() == HAL_HDC_NOT_READY && mode_of("") == 0) << "its server makes it";
    ASSERT_EQ(serve(), 0);
    EXPECT_EQ(mode_of("/hdc-7"), S_IFSOCK | 01600U);
    support::clear_log();
    for (int i = 0; i < 42; ++i)
        EXPECT_EQ(drvHdcServerCreate(device, 0, &far), HAL_ERR_SERVER_EXISTS);
    chmod(directory.c_str(), 0711);
    EXPECT_TRUE(connect() == 0 && is_final(serve()) && devdrv_open_device_manager() < 0);
    for (const mode_t mode : {0770U, 0755U}) {
        chmod(directory.c_str(), mode);
        EXPECT_TRUE(is_final(serve()) && is_final(connect()) && devdrv_open_device_manager() < 0);
    }
    EXPECT_EQ(support::log_lines().size(), 4U);
    EXPECT_EQ(logged_of("/hdc-7: another server has this device id"), 1);
    EXPECT_EQ(logged_of(": the directory of the sockets cannot be used: its mode 0755 gives rights "
                        "to others"),
              1);
    chmod(directory.c_str(), 0700);
    fs::create_directory_symlink(directory, root + "/link");
    for (const char* path : {"/link", "/link/", "/missing/below"}) {
        setenv("DM_HAL_DIR", (root + path).c_str(), 1);
        EXPECT_TRUE(is_final(connect()) && is_final(serve())) << path;
    }
    setenv("DM_HAL_DIR", directory.c_str(), 1);
    int status = 0;
    if (fork() == 0) { // what was written counts for a while
        support::clear_log();
        for (int i = 0; i < 1'000; ++i) {
            setenv("DM_HAL_DIR", (root + "/missing" + std::to_string(i % 500) + "/below").c_str(),
                   1);
            connect();
        }
        const size_t lines = support::log_lines().size();
        _exit(lines > 0 && lines <= 64 ? 0 : 1);
    }
    EXPECT_TRUE(wait(&status) > 0 && status == 0) << "not a thousand lines, or five hundred";
    for (int32_t code = HAL_ERR_FIRST; code <= HAL_ERR_LAST; ++code)
        EXPECT_STRNE(hal_strerror(code), hal_strerror(HAL_ERR_LAST + 1));
}

TEST_F(Hal, ADeviceMessageReachesTheOtherEndpoints) {
    std::array<int, 3> ends = {};
    for (int& end : ends)
        ASSERT_GE(end = devdrv_open_device_manager(), 0);
    const auto send_to = [&](uint32_t id, const std::string& bytes) {
        const auto length = static_cast<uint8_t>(bytes.size());
        return devdrv_imu_dmp_msg_send(ends[0], id, bytes.data(), length);
    };
    const auto next = [&](size_t end) {
        uint8_t length = 0;
        text.resize(HAL_DMP_MAX_LEN);
        const int code = devdrv_imu_dmp_msg_recv(ends.at(end), device, text.data(), 32, &length);
        text.resize(length);
        return code;
    };
    for (const std::string& sent : {std::string(), std::string(HAL_DMP_MAX_LEN, 'x')}) {
        EXPECT_EQ(send_to(device, sent), 0);
        EXPECT_TRUE(next(1) == 0 && text == sent && next(2) == 0 && text == sent);
    }
    EXPECT_TRUE(is_final(send_to(device, std::string(HAL_DMP_MAX_LEN + 1, 'x'))));
    const int32_t nothing = next(0);
    EXPECT_TRUE(is_final(nothing)) << "not the sender's own";
    EXPECT_TRUE(send_to(device + 1, "for another") == 0 && is_final(next(2)));
    EXPECT_EQ(next(2), nothing) << "it is consumed";
    for (int i = 0; i < 2'000; ++i)
        ASSERT_TRUE(send_to(device, "text") == 0 && next(2) == 0) << "one end reads nothing";
    close(ends[1]);
    EXPECT_TRUE(send_to(device, "text") == 0 && next(2) == 0);
    ends[1] = devdrv_open_device_manager();
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), fs::directory_iterator()), 3);
    EXPECT_TRUE(is_final(devdrv_imu_dmp_msg_send(STDIN_FILENO, device, "text", 4)));
    for (const int end : ends)
        close(end);
}

} // namespace
