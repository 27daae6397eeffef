#include "set/node_server.h"

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "set/inject.h"
#include "set/layout.h"
#include "set/module_state.h"

namespace vestra_set {
namespace {

using namespace std::chrono_literals;

constexpr fuse_ino_t kNodeInode = 2;
constexpr fuse_ino_t kStatusInode = 3;
constexpr const char *kNodeName = "vesertra_info";
constexpr const char *kStatusName = "status";
constexpr auto kStallLook = 20ms;

class NodeServer {
  public:
    explicit NodeServer(std::unique_ptr<TraceSource> source)
        : source_(std::move(source)),
          module_file_(std::string(kStateDir) + "/modules/" + kModuleName),
          inject_(std::string(kStateDir) + "/module/inject") {}

    // True while the module is loaded. One that was unloaded and loaded again starts afresh.
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
    ssize_t read(fuse_req_t request, uint8_t *out, size_t capacity) {
        const ssize_t result = read_block(request, out, capacity);
        if (result < 0) {
            state_.count_failed_read();
        } else {
            state_.count_read(out, static_cast<size_t>(result));
        }
        return result;
    }

    int write(std::string_view text) { return loaded() ? state_.write(text) : ENODEV; }

    std::string status() {
        const bool is_loaded = loaded();  // first: a module loaded anew is told by looking
        nlohmann::json status = state_.status();
        status["loaded"] = is_loaded;
        return status.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    }

  private:
    ssize_t read_block(fuse_req_t request, uint8_t *out, size_t capacity) {
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
                    if (fuse_req_interrupted(request) != 0) return -EINTR;
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

// The one server of this process; libfuse's threads come back with no more than the request.
NodeServer &server(fuse_req_t request) {
    return *static_cast<NodeServer *>(fuse_req_userdata(request));
}

struct stat attributes(fuse_ino_t inode) {
    struct stat result {};
    result.st_ino = inode;
    result.st_uid = geteuid();
    result.st_gid = getegid();
    result.st_nlink = inode == FUSE_ROOT_ID ? 2 : 1;
    result.st_mode = inode == FUSE_ROOT_ID ? S_IFDIR | 0555 : inode == kNodeInode ? S_IFREG | 0666 : S_IFREG | 0444;
    return result;
}

bool present(fuse_req_t request, fuse_ino_t inode) {
    return inode != kNodeInode || server(request).loaded();
}

void on_lookup(fuse_req_t request, fuse_ino_t parent, const char *name) {
    const fuse_ino_t inode = std::strcmp(name, kNodeName) == 0     ? kNodeInode
                             : std::strcmp(name, kStatusName) == 0 ? kStatusInode
                                                                   : 0;
    if (parent != FUSE_ROOT_ID || inode == 0 || !present(request, inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param entry{};  // time-outs of 0: the kernel asks every time
    entry.ino = inode;
    entry.attr = attributes(inode);
    fuse_reply_entry(request, &entry);
}

void on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info *) {
    if (!present(request, inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat attr = attributes(inode);
    fuse_reply_attr(request, &attr, 0);
}

// Opening with O_TRUNC sets a size; nothing follows from that, as with any file of /proc.
void on_setattr(fuse_req_t request, fuse_ino_t inode, struct stat *, int, fuse_file_info *info) {
    on_getattr(request, inode, info);
}

void on_access(fuse_req_t request, fuse_ino_t inode, int) {
    fuse_reply_err(request, present(request, inode) ? 0 : ENOENT);
}

void on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info) {
    if (!present(request, inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    if (inode == kStatusInode && (info->flags & O_ACCMODE) != O_RDONLY) {
        fuse_reply_err(request, EACCES);
        return;
    }
    info->direct_io = 1;
    // The status is one text from its first byte to its last, whatever happens while it is read.
    if (inode == kStatusInode) {
        info->fh = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(new std::string(server(request).status())));
    }
    if (fuse_reply_open(request, info) != 0 && inode == kStatusInode) {
        delete reinterpret_cast<std::string *>(static_cast<uintptr_t>(info->fh));
    }
}

void on_release(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info) {
    if (inode == kStatusInode) delete reinterpret_cast<std::string *>(static_cast<uintptr_t>(info->fh));
    fuse_reply_err(request, 0);
}

void on_read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info *info) {
    if (inode == kStatusInode) {
        const auto &text = *reinterpret_cast<const std::string *>(static_cast<uintptr_t>(info->fh));
        const size_t start = std::min(text.size(), static_cast<size_t>(std::max<off_t>(offset, 0)));
        // A copy: who reads may have closed the file before the call that replies is back, and the text is gone then.
        const std::string part = text.substr(start, size);
        fuse_reply_buf(request, part.data(), part.size());
        return;
    }
    thread_local std::vector<uint8_t> block(kBlockMax);
    const ssize_t count = server(request).read(request, block.data(), std::min<size_t>(size, kBlockMax));
    if (count < 0) {
        fuse_reply_err(request, static_cast<int>(-count));
    } else {
        fuse_reply_buf(request, reinterpret_cast<const char *>(block.data()), static_cast<size_t>(count));
    }
}

void on_write(fuse_req_t request, fuse_ino_t inode, const char *data, size_t size, off_t, fuse_file_info *) {
    const int error = inode == kNodeInode ? server(request).write({data, size}) : EACCES;
    if (error != 0) {
        fuse_reply_err(request, error);
    } else {
        fuse_reply_write(request, size);
    }
}

void on_create(fuse_req_t request, fuse_ino_t, const char *, mode_t, fuse_file_info *) {
    fuse_reply_err(request, EACCES);
}

void on_mknod(fuse_req_t request, fuse_ino_t, const char *, mode_t, dev_t) {
    fuse_reply_err(request, EACCES);
}

void on_readdir(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info *) {
    const std::pair<const char *, fuse_ino_t> entries[] = {
        {".", FUSE_ROOT_ID}, {"..", FUSE_ROOT_ID}, {kStatusName, kStatusInode}, {kNodeName, kNodeInode}};
    std::vector<char> buffer(size);
    size_t used = 0;
    for (size_t i = static_cast<size_t>(std::max<off_t>(offset, 0)); i < std::size(entries); ++i) {
        if (!present(request, entries[i].second)) continue;
        const struct stat attr = attributes(entries[i].second);
        const size_t needed = fuse_add_direntry(request, buffer.data() + used, size - used, entries[i].first, &attr,
                                                static_cast<off_t>(i + 1));
        if (needed > size - used) break;
        used += needed;
    }
    fuse_reply_buf(request, buffer.data(), used);
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops ops{};
    ops.lookup = on_lookup;
    ops.getattr = on_getattr;
    ops.setattr = on_setattr;
    ops.access = on_access;
    ops.open = on_open;
    ops.release = on_release;
    ops.read = on_read;
    ops.write = on_write;
    ops.create = on_create;
    ops.mknod = on_mknod;
    ops.readdir = on_readdir;
    return ops;
}

}  // namespace

int serve_node(int fuse, const SourceOptions &options) {
    pthread_setname_np(pthread_self(), "vestra-node");
    std::string error;
    if (options.kind == "host" && !show_host(&error)) {
        std::cerr << "vestra-set: " << error << std::endl;
        return 1;
    }
    auto trace = make_source(options, &error);
    if (trace == nullptr) {
        std::cerr << "vestra-set: trace source: " << error << std::endl;
        return 1;
    }
    NodeServer node(std::move(trace));
    const fuse_lowlevel_ops ops = operations();
    char name[] = "vestra-set";
    char *argv[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    fuse_session *session = fuse_session_new(&args, &ops, sizeof ops, &node);
    // What is mounted already is handed over as a descriptor.
    if (session == nullptr || fuse_session_mount(session, ("/dev/fd/" + std::to_string(fuse)).c_str()) != 0) return 1;
    fuse_loop_config config{};
    config.clone_fd = 0;
    config.max_idle_threads = 4;
    const int result = fuse_session_loop_mt(session, &config);
    fuse_session_destroy(session);
    fuse_opt_free_args(&args);
    return result == 0 ? 0 : 1;
}

}  // namespace vestra_set
