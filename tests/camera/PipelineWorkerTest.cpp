// The worker that changes pipeline states off the main thread: at exit it joins what
// it started, and a pipeline that will not reach NULL is reported and left behind
// within the bound, without the worker waiting for it.
#include "SystemLogCapture.h"
#include "camera/gst/PipelineWorker.h"

#include <QElapsedTimer>
#include <QTest>
#include <condition_variable>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <mutex>

namespace vistrel::test {
namespace {

using camera::PipelineWorker;

// Holds the streaming thread of a running test pipeline in a buffer probe until
// opened, as a driver that never returns would. Going to NULL needs that thread's
// stream lock, so the state change waits too.
struct StreamGate
{
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool open = false;

    static GstPadProbeReturn hold(GstPad *, GstPadProbeInfo *, gpointer data)
    {
        auto &gate = *static_cast<StreamGate *>(data);
        std::unique_lock lock(gate.mutex);
        gate.holding = true;
        gate.changed.notify_all();
        gate.changed.wait(lock, [&] { return gate.open; });
        return GST_PAD_PROBE_OK;
    }
    void waitUntilHolding()
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return holding; });
    }
    void release()
    {
        std::lock_guard lock(mutex);
        open = true;
        changed.notify_all();
    }
};

GstElement *playingPipeline(StreamGate *gate = nullptr)
{
    GstElement *pipeline = gst_parse_launch("videotestsrc name=source is-live=true ! fakesink", nullptr);
    if (gate) {
        GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
        GstPad *pad = gst_element_get_static_pad(source, "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, StreamGate::hold, gate, nullptr);
        gst_object_unref(pad);
        gst_object_unref(source);
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    return pipeline;
}

GstState currentState(GstElement *pipeline)
{
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(pipeline, &state, nullptr, 0);
    return state;
}

// Pipelines released and jobs started before exit are done when the exit returns;
// work handed to the main thread after it is dropped, not run on a dead loop.
TEST(PipelineWorkerTest, ExitJoinsEveryJobStarted)
{
    SystemLogCapture log;
    PipelineWorker worker;
    std::vector<GstElement *> pipelines;
    for (int i = 0; i < 4; ++i) {
        pipelines.push_back(playingPipeline());
        gst_object_ref(pipelines.back()); // kept to look at after the release
        worker.releasePipeline(pipelines.back());
    }
    bool waited = false;
    worker.run([&] {
        worker.waitForReleases(std::chrono::seconds(5));
        waited = true;
    });
    EXPECT_EQ(worker.shutdown(PipelineWorker::kExitLimit), 0);
    EXPECT_EQ(worker.jobsUnderWay(), 0);
    EXPECT_TRUE(waited);
    for (GstElement *pipeline : pipelines) {
        EXPECT_EQ(currentState(pipeline), GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
    bool ran = false;
    EXPECT_FALSE(worker.postToMainThread([&] { ran = true; }));
    QTest::qWait(20);
    EXPECT_FALSE(ran);
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
}

// A release that cannot finish delays the exit by the bound only, is reported in one
// line, and finishes on its own later without the worker (which is gone by then).
TEST(PipelineWorkerTest, AStuckPipelineIsReportedAndLeftBehindAtExit)
{
    SystemLogCapture log;
    StreamGate gate;
    GstElement *stuck = playingPipeline(&gate);
    gate.waitUntilHolding();
    gst_object_ref(stuck);
    QElapsedTimer exit;
    {
        PipelineWorker worker;
        worker.releasePipeline(stuck);
        worker.runRelease([] {});
        exit.start();
        EXPECT_EQ(worker.shutdown(std::chrono::milliseconds(300)), 1);
        EXPECT_GE(exit.elapsed(), 300);
        EXPECT_LT(exit.elapsed(), 1500) << "the exit waits no longer than its bound";
    }
    EXPECT_EQ(log.lines(), QStringList{QStringLiteral(
                               "Pipeline worker: 1 pipeline(s) did not stop within 300 ms; left running until "
                               "the process ends")});
    gate.release();
    EXPECT_TRUE(QTest::qWaitFor([&] { return currentState(stuck) == GST_STATE_NULL; }, 5000));
    gst_object_unref(stuck);
}

} // namespace
} // namespace vistrel::test
