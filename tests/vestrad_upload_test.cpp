// Live upload: with the real curl to a server on this machine, and to a program in curl's place that shows what it was
// given.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <thread>

#include "support/daemon_env.h"

using namespace vestra_test;

static int upload(std::string text) {
    return send_live_data(reinterpret_cast<unsigned char *>(text.data()), static_cast<unsigned int>(text.size()));
}

static void send_to(std::string_view address) {
    char(&field)[kExtfilePathSize] = g_vestra_config.vestra_extfile_path_id;
    memset(field, 0, sizeof(field));
    memcpy(field, address.data(), std::min(address.size(), sizeof(field)));
}

// Takes one request and answers it with `status`. Gives the request's bytes.
static std::string serve_one(int listener, const std::string &status) {
    std::string request;
    size_t whole = SIZE_MAX;
    char buffer[65536];
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    while (request.size() < whole) {
        const ssize_t count = recv(peer, buffer, sizeof(buffer), 0);
        if (count <= 0) break;
        request.append(buffer, static_cast<size_t>(count));
        const size_t body = request.find("\r\n\r\n"), length = request.find("Content-Length: ");
        if (body != std::string::npos && length < body) whole = body + 4 + std::stoul(request.substr(length + 16));
    }
    const std::string answer = "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(send(peer, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
    close(peer);
    return request;
}

class VestradUploadServer : public DaemonTest {};

TEST_F(VestradUploadServer, GetsTheBlockAndWhatItSaysDoesNotMatter) {
    make_debug_image();
    g_vestra_config.live_data_collect = 1;
    world().clock_us += 60'000'000;  // uploads of one second are numbered through, also over tests of one process
    unsetenv("http_proxy");
    std::string block(100000, '\0');
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 >> 3);
    for (const char *status : {"200 OK", "500 No"}) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), size), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
        send_to("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/vestra/");
        std::string request;
        std::thread server([&] { request = serve_one(listener, status); });
        EXPECT_EQ(upload(block), 0);
        server.join();
        close(listener);
        EXPECT_THAT(request, StartsWith("POST /vestra/fileRead.py HTTP/1.1\r\n"));
        EXPECT_THAT(request, HasSubstr("name=\"file\"; filename=\"0_1709618888_"));
        EXPECT_TRUE(request.find("\r\n\r\n" + block + kTrailer + "\r\n--") != std::string::npos) << "equal bytes";
        EXPECT_THAT(names_in("/tmp"), IsEmpty());
    }
    send_to("http://127.0.0.1:1/");
    EXPECT_EQ(upload("nobody is there"), 0);
    EXPECT_THAT(names_in("/tmp"), IsEmpty());
}

class VestradUpload : public DaemonTest {
  protected:
    void SetUp() override {
        make_debug_image();
        write_file("/tmp/curl",
                   "#!/bin/sh\nprintf '%s|' \"$@\" >> /tmp/given\ncat \"${2#file=@}\" > /tmp/sent\nexit 9\n");
        fs::permissions("/tmp/curl", fs::perms::all);
        if (mount("/tmp/curl", "/usr/bin/curl", nullptr, MS_BIND, nullptr) != 0) GTEST_SKIP() << "may not mount";
        g_vestra_config.live_data_collect = 1;
        g_vestra_config.vestra_unique_id = 4711;
        send_to("http://a.example/");
    }
    void TearDown() override { umount2("/usr/bin/curl", MNT_DETACH); }
};

TEST_F(VestradUpload, ServerGetsTheBlockAndTheTrailer) {
    const std::string behind = "_0000000000_" + std::to_string(getpid()) + "_vestrad", block(200, 'x');
    const std::string name = "/tmp/4711_1709618828_0" + behind, second = "/tmp/4711_1709618828_1" + behind;
    const int descriptor = next_descriptor();
    world().write_most = 10;  // twenty writes are enough
    EXPECT_EQ(upload(block), 0);
    EXPECT_EQ(read_file("/tmp/sent"), block + kTrailer);
    EXPECT_THAT(seen("3456s"), ElementsAre("3 [send_live_data] total_file_size 200", "sync",
                                           "3 INFO: after write done!!!", "3 INFO: after append_image_version",
                                           "3 vestra: data ready for sending to server http://a.example/",
                                           "3 vestra: data sent to server http://a.example/fileRead.py..",
                                           "3 INFO: writefile exit [success] " + name));
    upload("abc");
    world().clock_us += 1'000'000;
    memset(g_vestra_config.vestra_extfile_path_id, 'p', sizeof(g_vestra_config.vestra_extfile_path_id));
    upload("abc");
    EXPECT_EQ(read_file("/tmp/given"), "-F|file=@" + name + "|http://a.example/fileRead.py|-F|file=@" + second +
                                           "|http://a.example/fileRead.py|-F|file=@/tmp/4711_1709618829_0" + behind +
                                           "|" + std::string(255, 'p') + "|");
    EXPECT_EQ(upload(""), 0);
    g_vestra_config.live_data_collect = 2;
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_THAT(seen().back(), "3 [send_live_data] total_file_size 3") << "off, or nothing to send";
    EXPECT_THAT(names_in("/tmp"), ElementsAre("curl", "given", "sent"));
    EXPECT_EQ(next_descriptor(), descriptor);
}

TEST_F(VestradUpload, FileIsClosedEvenAsDescriptorZero) {
    const int kept = dup(0);
    close(0);
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(kept, 0);
    close(kept);
}

TEST_F(VestradUpload, FailureBeforeTheUploadLeavesTheFile) {
    world().write_most = 4;
    EXPECT_EQ(upload(std::string(100, 'x')), -1);
    EXPECT_THAT(seen("6"), Contains("6 ERROR: requested 100 bytes but written only 80 bytes"));
    EXPECT_THAT(seen().back(), StartsWith("6 INFO: writefile exit [failed] /tmp/4711_"));
    EXPECT_THAT(names_in("/tmp"), SizeIs(1 + 1));
}
