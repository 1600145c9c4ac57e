// The worker that changes pipeline states off the main thread: at exit it joins what
// it started, and a pipeline that will not reach NULL is reported and left behind.
#include "camera/gst/PipelineWorker.h"
#include "SystemLogCapture.h"

#include <QElapsedTimer>
#include <QTest>
#include <atomic>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace vistrel::test {
namespace {

using camera::PipelineWorker;

// Holds a pipeline's streaming thread in a buffer probe until opened, as a driver that
// never returns would; going to NULL needs that thread's stream lock, so it waits too.
struct StreamGate
{
    std::atomic<bool> holding{false}, open{false};
};

// Answers a second reference, to look at the pipeline after the worker has let go of it.
GstElement *playingPipeline(StreamGate *gate = nullptr)
{
    GstElement *pipeline = gst_parse_launch("videotestsrc name=source is-live=true ! fakesink", nullptr);
    if (gate) {
        GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
        GstPad *pad = gst_element_get_static_pad(source, "src");
        const auto hold = [](GstPad *, GstPadProbeInfo *, gpointer data) {
            auto &gate = *static_cast<StreamGate *>(data);
            gate.holding = true;
            gate.holding.notify_all();
            gate.open.wait(false);
            return GST_PAD_PROBE_OK;
        };
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, hold, gate, nullptr);
        gst_object_unref(pad);
        gst_object_unref(source);
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    return GST_ELEMENT(gst_object_ref(pipeline));
}

GstState currentState(GstElement *pipeline)
{
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(pipeline, &state, nullptr, 0);
    return state;
}

// Releases and jobs started before exit are done when the exit returns; work handed
// to the main thread after it is dropped, not queued to a dead loop.
TEST(PipelineWorkerTest, ExitJoinsEveryJobStarted)
{
    SystemLogCapture log;
    PipelineWorker worker;
    std::vector<GstElement *> pipelines(4);
    for (GstElement *&pipeline : pipelines)
        worker.releasePipeline(pipeline = playingPipeline());
    bool waited = false;
    worker.run([&] {
        worker.waitForReleases(std::chrono::seconds(5));
        waited = true;
    });
    EXPECT_EQ(worker.shutdown(PipelineWorker::kExitLimit), 0);
    EXPECT_TRUE(waited);
    for (GstElement *pipeline : pipelines) {
        EXPECT_EQ(currentState(pipeline), GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
    EXPECT_FALSE(worker.postToMainThread([] {}));
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
}

// A release that cannot finish delays the exit by the bound only, is reported in one
// line, and finishes on its own later without the worker (gone by then).
TEST(PipelineWorkerTest, AStuckPipelineIsReportedAndLeftBehindAtExit)
{
    SystemLogCapture log;
    StreamGate gate;
    GstElement *stuck = playingPipeline(&gate);
    gate.holding.wait(false);
    QElapsedTimer exit;
    {
        PipelineWorker worker;
        worker.releasePipeline(stuck);
        worker.runRelease([] {}); // finished jobs are joined, not counted
        exit.start();
        EXPECT_EQ(worker.shutdown(std::chrono::milliseconds(300)), 1);
        EXPECT_GE(exit.elapsed(), 300);
        EXPECT_LT(exit.elapsed(), 1500) << "the exit waits no longer than its bound";
    }
    EXPECT_EQ(log.lines(),
              QStringList{QStringLiteral("Pipeline worker: 1 pipeline(s) did not stop within 300 ms; "
                                         "left running until the process ends")});
    gate.open = true;
    gate.open.notify_all();
    EXPECT_TRUE(QTest::qWaitFor([&] { return currentState(stuck) == GST_STATE_NULL; }, 5000));
    gst_object_unref(stuck);
}

} // namespace
} // namespace vistrel::test
