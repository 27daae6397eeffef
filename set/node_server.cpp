#include "set/node_server.h"

#define FUSE_USE_VERSION 35
#include <fuse.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "set/complain.h"
#include "set/inject.h"
#include "set/layout.h"
#include "set/module_state.h"

namespace vestra_set {
namespace {

using namespace std::chrono_literals;

constexpr auto kStallLook = 20ms;

class NodeServer {
  public:
    explicit NodeServer(std::unique_ptr<TraceSource> source)
        : source_(std::move(source)),
          module_file_(std::string(kStateDir) + "/modules/" + kModuleName),
          inject_(std::string(kStateDir) + "/module/inject") {}

    // True while the module is loaded. One that was unloaded and loaded again has its first state.
    bool loaded() {
        struct stat now;
        if (stat(module_file_.c_str(), &now) != 0) return false;
        const std::lock_guard<std::mutex> guard(load_mutex_);
        if (now.st_ino != load_.st_ino || now.st_mtim.tv_sec != load_.st_mtim.tv_sec ||
            now.st_mtim.tv_nsec != load_.st_mtim.tv_nsec) {
            load_ = now;
            state_.reset();
        }
        return true;
    }

    // One block into `out`. Returns its size, or a negative errno.
    ssize_t read(uint8_t *out, size_t capacity) {
        const ssize_t result = read_block(out, capacity);
        if (result < 0) {
            state_.count_failed_read();
        } else {
            state_.count_read(out, static_cast<size_t>(result));
        }
        return result;
    }

    int write(std::string_view text) { return loaded() ? state_.write(text) : ENODEV; }

    std::string status() {
        const bool is_loaded = loaded();  // first: this finds that the module was loaded again
        nlohmann::json status = state_.status();
        status["loaded"] = is_loaded;
        return status.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    }

  private:
    ssize_t read_block(uint8_t *out, size_t capacity) {
        for (;;) {
            if (!loaded()) return -ENODEV;
            const Injector::Verdict verdict = inject_.next();
            switch (verdict.what) {
                case Injector::Verdict::kRead:
                    return next_block(out, std::min(capacity, verdict.size_limit));
                case Injector::Verdict::kEmpty:
                    return 0;
                case Injector::Verdict::kError:
                    return -verdict.error;
                case Injector::Verdict::kStall:
                    if (fuse_interrupted() != 0) return -EINTR;
                    std::this_thread::sleep_for(kStallLook);
            }
        }
    }

    ssize_t next_block(uint8_t *out, size_t capacity) {
        const std::lock_guard<std::mutex> guard(source_mutex_);
        const uint64_t version = state_.control_version();
        if (version != applied_version_) {
            control_ = state_.control();
            source_->apply(control_);
            applied_version_ = version;
        }
        if (!control_.tracing) return 0;
        return static_cast<ssize_t>(std::min(source_->next_block(out, capacity), capacity));
    }

    std::mutex source_mutex_;  // guards the source and the two below it
    std::unique_ptr<TraceSource> source_;
    ModuleControl control_{};
    uint64_t applied_version_ = 0;

    std::mutex load_mutex_;  // guards load_
    struct stat load_ {};    // of the module's file when it was last seen

    const std::string module_file_;
    Injector inject_;
    ModuleState state_;
};

/* ------------------------------ Files ------------------------------ */

constexpr const char *kNodePath = "/vesertra_info";
constexpr const char *kStatusPath = "/status";

NodeServer &server() {
    return *static_cast<NodeServer *>(fuse_get_context()->private_data);
}

bool is_node(const char *path) {
    return std::strcmp(path, kNodePath) == 0;
}

// The status is one text from its first byte to its last, whatever happens while it is read: that of the open file.
std::string *status_of(const fuse_file_info *info) {
    return reinterpret_cast<std::string *>(static_cast<uintptr_t>(info->fh));
}

// Nothing is cached: the kernel asks every time.
void *on_init(fuse_conn_info *, fuse_config *config) {
    config->direct_io = 1;
    config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
    return fuse_get_context()->private_data;
}

int on_getattr(const char *path, struct stat *result, fuse_file_info *) {
    const bool root = std::strcmp(path, "/") == 0;
    if (!root && std::strcmp(path, kStatusPath) != 0 && !(is_node(path) && server().loaded())) return -ENOENT;
    *result = {};
    result->st_uid = geteuid();
    result->st_gid = getegid();
    result->st_nlink = root ? 2 : 1;
    result->st_mode = root ? S_IFDIR | 0555 : is_node(path) ? S_IFREG | 0666 : S_IFREG | 0444;
    return 0;
}

int on_readdir(const char *, void *buffer, fuse_fill_dir_t fill, off_t, fuse_file_info *, fuse_readdir_flags) {
    for (const char *name : {".", "..", kStatusPath + 1, kNodePath + 1}) {
        if (name == kNodePath + 1 && !server().loaded()) continue;
        fill(buffer, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
    return 0;
}

int on_open(const char *path, fuse_file_info *info) {
    if (is_node(path)) return server().loaded() ? 0 : -ENOENT;
    if ((info->flags & O_ACCMODE) != O_RDONLY) return -EACCES;
    info->fh = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(new std::string(server().status())));
    return 0;
}

int on_release(const char *, fuse_file_info *info) {
    delete status_of(info);
    return 0;
}

int on_read(const char *path, char *out, size_t size, off_t offset, fuse_file_info *info) {
    if (is_node(path)) return static_cast<int>(server().read(reinterpret_cast<uint8_t *>(out), size));
    const std::string &text = *status_of(info);
    return static_cast<int>(text.copy(out, size, std::min(text.size(), static_cast<size_t>(offset))));
}

int on_write(const char *, const char *data, size_t size, off_t, fuse_file_info *) {
    const int error = server().write({data, size});
    return error == 0 ? static_cast<int>(size) : -error;
}

// Opening with O_TRUNC sets a size; nothing follows from that, as with any file of /proc.
int on_truncate(const char *path, off_t, fuse_file_info *info) {
    struct stat ignored;
    return on_getattr(path, &ignored, info);
}

int on_create(const char *, mode_t, fuse_file_info *) {
    return -EACCES;
}

int on_mknod(const char *, mode_t, dev_t) {
    return -EACCES;
}

fuse_operations operations() {
    fuse_operations ops{};
    ops.init = on_init;
    ops.getattr = on_getattr;
    ops.readdir = on_readdir;
    ops.open = on_open;
    ops.release = on_release;
    ops.read = on_read;
    ops.write = on_write;
    ops.truncate = on_truncate;
    ops.create = on_create;
    ops.mknod = on_mknod;
    return ops;
}

}  // namespace

int serve_node(int fuse, const SourceOptions &options) try {
    pthread_setname_np(pthread_self(), "vestra-node");
    std::string error;
    if (options.kind == "host") show_host();
    auto trace = make_source(options, &error);
    if (trace == nullptr) fail("trace source: " + error);
    NodeServer node(std::move(trace));
    const fuse_operations ops = operations();
    char name[] = "vestra-set";
    char *argv[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    struct fuse *files = fuse_new(&args, &ops, sizeof ops, &node);
    // What is mounted already is handed over as a descriptor.
    if (files == nullptr || fuse_mount(files, ("/dev/fd/" + std::to_string(fuse)).c_str()) != 0) return kExitFailed;
    fuse_loop_config config{};
    config.max_idle_threads = 4;
    const int result = fuse_loop_mt(files, &config);
    fuse_destroy(files);
    return result == 0 ? kExitOk : kExitFailed;
} catch (const std::exception &problem) {
    say(problem.what());
    return kExitFailed;
}

}  // namespace vestra_set
