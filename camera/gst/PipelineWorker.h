#pragma once
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <thread>

typedef struct _GstElement GstElement;

namespace vistrel::camera {

// Runs the GStreamer calls that can wait on a device, a file or a PipeWire round trip
// (a state change to PLAYING or to NULL) away from the main thread. Each job gets a
// thread of its own, so one stuck pipeline cannot hold up the next; the worker owns
// every such thread and joins it.
//
// Threads:
// - run, runRelease and releasePipeline: the main thread.
// - waitForReleases: a job (a camera start waits for the cameras being let go).
// - postToMainThread: any thread (jobs, GStreamer's streaming threads).
// - shutdown and the destructor: the main thread, at exit.
//
// Lifetime: the application's worker (shared()) is made at first use and shut down
// when the application object goes away, while the main thread can still receive
// what the jobs hand to it. A job that has not finished within the bound then (a
// pipeline that will not reach NULL) is reported in one system-log line and left to
// the end of the process; it holds a share of the state it touches, never a
// reference to the worker.
class PipelineWorker
{
public:
    static constexpr std::chrono::milliseconds kExitLimit{2000};

    PipelineWorker();
    // Shuts down within kExitLimit.
    ~PipelineWorker();
    PipelineWorker(const PipelineWorker &) = delete;
    PipelineWorker &operator=(const PipelineWorker &) = delete;

    static PipelineWorker &shared();

    void run(std::function<void()> job);
    // A job that lets go of a device: waitForReleases waits for it.
    void runRelease(std::function<void()> job);
    // Takes the pipeline down to NULL and drops the caller's reference, as a job.
    void releasePipeline(GstElement *pipeline);

    // Waits until no release job is left, but no longer than `limit`.
    void waitForReleases(std::chrono::milliseconds limit);

    // Queues `action` to the main thread; answers false (and drops it) once the
    // worker has shut down, when there is no main thread left to run it.
    bool postToMainThread(std::function<void()> action);

    // Waits up to `limit` for the jobs under way and joins them. Jobs still running
    // then are reported and abandoned. Answers how many were abandoned. Jobs run after
    // a shutdown are still owned; the next shutdown (the destructor) joins them.
    int shutdown(std::chrono::milliseconds limit);

    // Jobs started and not yet finished.
    int jobsUnderWay() const;

    struct State;

private:
    void start(std::function<void()> job, bool release);
    void joinFinished();

    struct Thread
    {
        std::thread thread;
        std::shared_ptr<bool> finished; // guarded by State::mutex
    };
    std::shared_ptr<State> m_state;
    std::list<Thread> m_threads;
};

} // namespace vistrel::camera
