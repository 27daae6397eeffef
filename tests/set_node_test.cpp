// The control node as a program in the set sees it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "set/fd.h"
#include "set/files.h"
#include "set/layout.h"

namespace vestra_set {
namespace {

using namespace std::chrono_literals;

constexpr const char *kNode = "/proc/vesertra_info";
const std::string kModuleEntry = std::string(kStateDir) + "/modules/" + kModuleName;
const std::string kInject = std::string(kStateDir) + "/module/inject";

class Node : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove(kInject);
        ASSERT_TRUE(write_file(kModuleEntry, kModuleFile));
        node_.reset(open(kNode, O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(node_.valid());
        ASSERT_EQ(command("0\n"), 0);
    }

    static int command(std::string_view text) {
        const UniqueFd fd(open(kNode, O_WRONLY | O_TRUNC | O_CLOEXEC));
        if (!fd.valid()) return errno;
        return write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
    }
    static nlohmann::json status() {
        return nlohmann::json::parse(read_file(std::string(kNodeDir) + "/status").value_or("null"));
    }
    static void inject(const std::string &text) {
        ASSERT_TRUE(write_file(kInject + ".new", text));
        std::filesystem::rename(kInject + ".new", kInject);
    }
    ssize_t read_block() { return read(node_.get(), block_.data(), block_.size()); }

    UniqueFd node_;
    std::vector<uint8_t> block_ = std::vector<uint8_t>(131072);
};

TEST_F(Node, HandsOutNothingWhileTracingIsOffAndBlocksWhileItIsOn) {
    EXPECT_EQ(read_block(), 0);
    ASSERT_EQ(command("1\n"), 0);
    const auto before = status();
    ssize_t size = 0;
    for (int i = 0; i < 100 && size == 0; ++i) {
        std::this_thread::sleep_for(10ms);
        size = read_block();
    }
    ASSERT_GT(size, 6);
    EXPECT_LE(size, 131072);
    EXPECT_TRUE(block_[4] == 7 || block_[4] == 8) << "a frame's type";
    const auto after = status();
    EXPECT_EQ(after["bytes"].get<int64_t>() - before["bytes"].get<int64_t>(), size);
    EXPECT_EQ(after["blocks"].get<int64_t>() - before["blocks"].get<int64_t>(), 1);
}

TEST_F(Node, GivesWhatIsAskedForAtMost) {
    ASSERT_EQ(command("1\n"), 0);
    for (int i = 0; i < 20; ++i) {
        block_.assign(block_.size(), 0xee);
        const ssize_t size = read(node_.get(), block_.data(), 100);
        ASSERT_GE(size, 0);
        ASSERT_LE(size, 100);
        ASSERT_EQ(block_[static_cast<size_t>(size)], 0xee);
    }
}

TEST_F(Node, RefusesWhatIsNoCommandAndCountsIt) {
    const int before = status()["refused"];
    EXPECT_EQ(command("c-9-4-1"), EINVAL);
    EXPECT_EQ(command(std::string(200000, 'x')), EINVAL);
    EXPECT_EQ(command("c-0-4-77"), 0);
    EXPECT_GE(status()["refused"].get<int>(), before + 2);
    EXPECT_EQ(status()["temperature"], 77);
}

TEST_F(Node, CannotBeMadeWhileTheModuleIsUnloaded) {
    std::filesystem::remove(kModuleEntry);
    EXPECT_NE(access(kNode, F_OK), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open(kNode, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(status()["loaded"], false);
}

TEST_F(Node, FailsOpenDescriptorsOnceTheModuleIsUnloaded) {
    const UniqueFd writer(open(kNode, O_WRONLY | O_CLOEXEC));
    std::filesystem::remove(kModuleEntry);
    EXPECT_EQ(read_block(), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(write(writer.get(), "1", 1), -1);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(Node, ForgetsTracingWhenTheModuleIsLoadedAnew) {
    ASSERT_EQ(command("1\n"), 0);
    const int loads = status()["loads"];
    std::filesystem::remove(kModuleEntry);
    ASSERT_TRUE(write_file(kModuleEntry, kModuleFile));
    EXPECT_EQ(status()["tracing"], false);
    EXPECT_EQ(status()["loads"], loads + 1);
}

TEST_F(Node, CommitsTheFaultsThatAreInjected) {
    ASSERT_EQ(command("1\n"), 0);
    inject("error 1\nempty 1\nsize 40\n");
    EXPECT_EQ(read_block(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read_block(), 0);
    EXPECT_LE(read_block(), 40);
}

TEST_F(Node, StallsReadsUntilReleasedWhileCommandsGoOn) {
    inject("stall\n");
    std::atomic<bool> done{false};
    std::thread reader([&] {
        read_block();
        done = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(done);
    EXPECT_EQ(command("c-0-4-50"), 0);
    std::filesystem::remove(kInject);
    reader.join();
    EXPECT_TRUE(done);
}

TEST_F(Node, LetsASignalInterruptAStalledRead) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    inject("stall\n");
    std::atomic<int> error{0};
    std::thread reader([&] { error = read_block() < 0 ? errno : -1; });
    std::this_thread::sleep_for(100ms);
    pthread_kill(reader.native_handle(), SIGUSR1);
    reader.join();
    EXPECT_EQ(error, EINTR);
}

TEST_F(Node, KeepsItsStatusInAFileToo) {
    ASSERT_EQ(command("c-0-4-66"), 0);
    const std::string path = std::string(kStateDir) + "/module/status.json";
    nlohmann::json kept = nlohmann::json::object();
    for (int i = 0; i < 100 && kept.value("temperature", nlohmann::json()) != 66; ++i) {
        std::this_thread::sleep_for(20ms);
        kept = nlohmann::json::parse(read_file(path).value_or("{}"));
    }
    EXPECT_EQ(kept.value("temperature", nlohmann::json()), 66);
}

}  // namespace
}  // namespace vestra_set
