#include "camera/gst/PipelineWorker.h"

#include "core/AbandonedThreads.h"
#include "core/TraceLog.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <condition_variable>
#include <gst/gst.h>
#include <mutex>

namespace vistrel::camera {

// Shared by the worker and its threads, so that a thread left running at exit still
// finds it.
struct PipelineWorker::State
{
    mutable std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    int releases = 0;
    bool mainThreadGone = false;
};

PipelineWorker::PipelineWorker() : m_state(std::make_shared<State>()) {}

PipelineWorker::~PipelineWorker()
{
    shutdown(kExitLimit);
}

PipelineWorker &PipelineWorker::shared()
{
    static PipelineWorker worker;
    static std::once_flag registered;
    std::call_once(registered, [] {
        // Run as the application object goes away: its windows (and with them the
        // sessions and players) are gone by then, and the main thread still exists.
        if (QCoreApplication::instance())
            qAddPostRoutine([] { worker.shutdown(kExitLimit); });
    });
    return worker;
}

void PipelineWorker::run(std::function<void()> job)
{
    start(std::move(job), false);
}

void PipelineWorker::runRelease(std::function<void()> job)
{
    start(std::move(job), true);
}

void PipelineWorker::releasePipeline(GstElement *pipeline)
{
    run([pipeline] {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    });
}

void PipelineWorker::start(std::function<void()> job, bool release)
{
    joinFinished();
    auto finished = std::make_shared<bool>(false);
    {
        std::lock_guard lock(m_state->mutex);
        ++m_state->running;
        if (release)
            ++m_state->releases;
    }
    std::thread thread([state = m_state, finished, release, job = std::move(job)]() mutable {
        job();
        job = nullptr; // what it holds goes before the thread counts as finished
        {
            std::lock_guard lock(state->mutex);
            --state->running;
            if (release)
                --state->releases;
            *finished = true;
        }
        state->changed.notify_all();
    });
    m_threads.push_back({std::move(thread), std::move(finished)});
}

void PipelineWorker::joinFinished()
{
    std::list<Thread> done;
    {
        std::lock_guard lock(m_state->mutex);
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            auto next = std::next(it);
            if (*it->finished)
                done.splice(done.end(), m_threads, it);
            it = next;
        }
    }
    // A finished thread has only its return left: these joins do not wait.
    for (Thread &thread : done)
        thread.thread.join();
}

void PipelineWorker::waitForReleases(std::chrono::milliseconds limit)
{
    std::unique_lock lock(m_state->mutex);
    m_state->changed.wait_for(lock, limit, [this] { return m_state->releases == 0; });
}

bool PipelineWorker::postToMainThread(std::function<void()> action)
{
    std::lock_guard lock(m_state->mutex);
    QCoreApplication *application = QCoreApplication::instance();
    if (m_state->mainThreadGone || !application)
        return false;
    QMetaObject::invokeMethod(application, std::move(action), Qt::QueuedConnection);
    return true;
}

int PipelineWorker::shutdown(std::chrono::milliseconds limit)
{
    {
        std::unique_lock lock(m_state->mutex);
        m_state->mainThreadGone = true;
        m_state->changed.wait_for(lock, limit, [this] { return m_state->running == 0; });
    }
    joinFinished();
    const int abandoned = static_cast<int>(m_threads.size());
    if (abandoned > 0) {
        traceLog(QStringLiteral("Pipeline worker: %1 pipeline(s) did not stop within %2 ms; left running until "
                                "the process ends")
                     .arg(abandoned)
                     .arg(limit.count()));
        // Each holds its own share of what it uses, and nothing waits for it.
        for (Thread &thread : m_threads)
            keepUntilExit(std::move(thread.thread));
        m_threads.clear();
    }
    return abandoned;
}

int PipelineWorker::jobsUnderWay() const
{
    std::lock_guard lock(m_state->mutex);
    return m_state->running;
}

} // namespace vistrel::camera
