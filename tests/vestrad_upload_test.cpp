// Live upload, with a real server on this machine and the real curl.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support/daemon_env.h"

namespace vestra_test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

// Takes one request, keeps it, and answers with `status`.
class OneShotServer {
  public:
    explicit OneShotServer(std::string status) : status_(std::move(status)) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~OneShotServer() { request(); }
    OneShotServer(const OneShotServer &) = delete;
    OneShotServer &operator=(const OneShotServer &) = delete;

    std::string address() const { return "http://127.0.0.1:" + std::to_string(port_) + "/vestra/"; }
    const std::string &request() {
        if (thread_.joinable()) thread_.join();
        if (listener_ >= 0) close(listener_);
        listener_ = -1;
        return request_;
    }

  private:
    void serve() {
        const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        size_t whole = SIZE_MAX;
        char buffer[65536];
        while (request_.size() < whole) {
            const ssize_t count = recv(peer, buffer, sizeof(buffer), 0);
            if (count <= 0) break;
            request_.append(buffer, static_cast<size_t>(count));
            const size_t body = request_.find("\r\n\r\n"), length = request_.find("Content-Length: ");
            if (body != std::string::npos && length != std::string::npos) {
                whole = body + 4 + std::stoul(request_.substr(length + strlen("Content-Length: ")));
            }
        }
        const std::string answer = "HTTP/1.1 " + status_ + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        EXPECT_EQ(send(peer, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
        close(peer);
    }

    std::string status_, request_;
    int listener_;
    uint16_t port_;
    std::thread thread_;
};

class VestradUpload : public DaemonTest {
  protected:
    VestradUpload() {
        make_debug_image();
        g_vestra_config.live_data_collect = 1;
        g_vestra_config.vestra_unique_id = 4711;
        unsetenv("http_proxy");
    }
    static void send_to(const std::string &address) {
        memset(g_vestra_config.vestra_extfile_path_id, 0, sizeof(g_vestra_config.vestra_extfile_path_id));
        memcpy(g_vestra_config.vestra_extfile_path_id, address.data(),
               std::min(address.size(), sizeof(g_vestra_config.vestra_extfile_path_id)));
    }
    static int upload(std::string text) {
        return send_live_data(reinterpret_cast<unsigned char *>(text.data()), static_cast<unsigned int>(text.size()));
    }
    static std::string file_name(int sequence) {
        return "4711_1700000000_" + std::to_string(sequence) + "_0000000000_" + std::to_string(getpid()) + "_vestrad";
    }
};

TEST_F(VestradUpload, ServerGetsTheBlockAndTheTrailer) {
    std::string block(100000, '\0');
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 >> 3);
    world().write_most = 5000;  // twenty writes are enough
    OneShotServer server("200 OK");
    send_to(server.address());
    EXPECT_EQ(upload(block), 0);
    const std::string &request = server.request();
    EXPECT_THAT(request, AllOf(StartsWith("POST /vestra/fileRead.py HTTP/1.1\r\n"),
                               HasSubstr("name=\"file\"; filename=\"" + file_name(0) + "\""),
                               HasSubstr("\r\n\r\n" + block + kTrailer + "\r\n--")));
    EXPECT_THAT(names_in("/tmp"), IsEmpty());
    EXPECT_EQ(count_log(kDebug, "vestra: data ready for sending to server " + server.address()), 1);
    EXPECT_EQ(count_log(kDebug, "vestra: data sent to server " + server.address() + "fileRead.py.."), 1);
    EXPECT_EQ(log_texts().back(), "INFO: writefile exit [success] /tmp/" + file_name(0));
}

TEST_F(VestradUpload, RefusedOrUnreachableCountsAsSent) {
    OneShotServer server("500 No");
    send_to(server.address());
    world().clock_us += 5'000'000;
    EXPECT_EQ(upload("abc"), 0);
    server.request();
    send_to("http://127.0.0.1:1/");
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_THAT(names_in("/tmp"), IsEmpty());
}

TEST_F(VestradUpload, SequenceCountsWithinASecond) {
    send_to("http://127.0.0.1:1/");
    world().clock_us = 1'800'000'000'000'000;
    for (const auto &[step, second, sequence] : std::vector<std::tuple<int64_t, int, int>>{
             {0, 0, 0}, {10, 0, 1}, {10, 0, 2}, {1'000'000, 1, 0}, {1, 1, 1}, {-1'000'000, 0, 0}}) {
        world().clock_us += step;
        forget_log();
        EXPECT_EQ(upload("abc"), 0);
        const std::string name = "/tmp/4711_" + std::to_string(1800000000 + second) + "_" + std::to_string(sequence);
        EXPECT_EQ(count_log("INFO: writefile exit [success] " + name + "_0000000000_"), 1) << name;
    }
}

TEST_F(VestradUpload, OffOrEmptyDoesNothing) {
    EXPECT_EQ(upload(""), 0);
    for (const int value : {0, 2}) {
        g_vestra_config.live_data_collect = value;
        EXPECT_EQ(upload("abc"), 0);
    }
    EXPECT_THAT(log_texts(), ElementsAre("[send_live_data] total_file_size 0", "[send_live_data] total_file_size 3",
                                         "[send_live_data] total_file_size 3"));
    EXPECT_THAT(names_in("/tmp"), IsEmpty());
}

TEST_F(VestradUpload, FailureBeforeTheUploadLeavesTheFile) {
    static const struct {
        const char *name;
        int fails_at;
        size_t most;
        const char *message;
    } kRows[] = {
        {"Write", 1, SIZE_MAX, "ERROR: write failed (28:No space left on device)"},
        {"TooManyPieces", 0, 4, "ERROR: requested 100 bytes but written only 80 bytes"},
        {"Trailer", 2, SIZE_MAX, "ERROR: append_image_version failed (28:No space left on device)"},
    };
    send_to("http://127.0.0.1:1/");
    int writes = 0;
    world().on_write = [&](int number) { writes = number; };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.name);
        world().clock_us += 2'000'000;
        world().write_fails_at = row.fails_at == 0 ? 0 : writes + row.fails_at;
        world().write_most = row.most;
        forget_log();
        EXPECT_EQ(upload(std::string(100, 'x')), -1);
        EXPECT_EQ(count_log(kError, row.message), 1);
        EXPECT_EQ(count_log("INFO: writefile exit [failed] /tmp/4711_"), 1);
    }
    EXPECT_THAT(names_in("/tmp"), SizeIs(3));
}

TEST_F(VestradUpload, UnterminatedAddressIsCutAtTheCommandsLimit) {
    send_to("http://127.0.0.1:1/" + std::string(300, 'a'));
    EXPECT_EQ(upload("abc"), 0);
    EXPECT_EQ(
        count_log(kDebug, "vestra: data sent to server http://127.0.0.1:1/" + std::string(237, 'a') + "fileRead.py.."),
        1);
}

}  // namespace
}  // namespace vestra_test
