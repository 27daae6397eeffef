// live_recording.h -- the last 180 s of a running daemon, brought up to date by a thread of its own.
//
// What is shown changes only in take() and pause(), which the thread of the screen calls. Paused, it stays as it is, and so
// it does while the daemon does not answer.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/stat/history.h"
#include "tools/view/recording.h"

namespace vestra_view {

struct Snapshot {
    double time = 0;                           // of the answer, seconds since 1970
    std::vector<vestra_stat::Second> seconds;  // newest first
    std::vector<vestra_api_data> window;       // the answers for the window
    std::string problem;                       // printable; "": the daemon answers
    int code = 0;                              // exit code, if this is the last
};

class LiveRecording : public Recording {
  public:
    // `ask` brings a snapshot up to date; what it cannot renew, it leaves. It is called on the thread, at that interval.
    // `window`: seconds; 0: none.
    LiveRecording(std::function<void(Snapshot *)> ask, std::chrono::duration<double> interval, int window);
    ~LiveRecording() override;  // waits for an answer
    LiveRecording(const LiveRecording &) = delete;
    LiveRecording &operator=(const LiveRecording &) = delete;

    int wake() const { return wake_; }  // a descriptor that can be read after each answer
    void take();
    long asked() const { return shown_asked_; }  // answers up to the last take()
    int code() const { return code_; }           // of the last of them

    size_t size() const override { return shown_.seconds.size(); }
    Second second(size_t index) const override;
    std::string title() const override { return "vestrad"; }
    std::string problem() const override { return problem_; }
    std::string wall_time(int64_t time_ns) const override;
    Line line(size_t vital, size_t columns) const override;
    std::optional<size_t> peak(size_t vital, size_t index, bool forward) const override;
    const std::vector<Mark> &findings() const override { return none_; }
    const std::vector<Mark> &damage() const override { return none_; }
    bool has_processes() const override { return false; }
    std::vector<ProcessRow> processes(size_t) override { return {}; }
    ProcessLines process_lines(const ProcessId &, size_t columns) const override {
        return {Line(columns, kUnknown), Line(columns, kUnknown)};
    }
    std::optional<size_t> find_time(const std::string &text, size_t index, std::string *error) const override;
    bool is_live() const override { return true; }
    bool paused() const override { return paused_; }
    void pause(bool pause) override;
    int window() const override { return window_; }
    WindowFigures window_figures(size_t vital) const override;

  private:
    void ask_again_and_again();

    const std::function<void(Snapshot *)> ask_;
    const std::chrono::duration<double> interval_;
    const int window_;
    const std::vector<Mark> none_;
    Snapshot shown_;
    std::string problem_ = "asking the daemon";
    long shown_asked_ = 0;
    int code_ = 0;
    bool paused_ = false;
    int wake_;

    std::mutex lock_;  // guards the rest
    std::condition_variable changed_;
    Snapshot newest_;
    long asked_ = 0;
    bool ends_ = false;
    std::thread thread_;
};

}  // namespace vestra_view
