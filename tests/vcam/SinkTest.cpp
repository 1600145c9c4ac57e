// The loopback sink against a stand-in for the v4l2loopback device: what reaches the
// device, and what the sink does when a write fails or never returns.
#include "FakeLoopbackDevice.h"
#include "SystemLogCapture.h"
#include "TestHome.h"
#include "core/TraceLog.h"
#include "vcam/PixelBuffer.h"
#include "vcam/v4l2loopback/LoopbackSink.h"

#include <QTest>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace vistrel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::FakeLoopbackDevice;
using vcam::LoopbackSink;

const QString kNode = QStringLiteral("/dev/video10");

vcam::SampleBuffer frame()
{
    return {std::make_shared<vcam::PixelBuffer>(LoopbackSink::kWidth, LoopbackSink::kHeight), nullptr, 0};
}

// A black frame goes at once, then each frame enqueued, all from the writer thread; each
// take is reported. A write to a vanished device is the last: one line, no more writes,
// enqueue refused, its descriptor not touched again (not even closed). Other failures
// pass, one line per kind.
TEST(LoopbackSinkTest, FramesGoFromTheWriterAndAWriteToAVanishedDeviceIsTheLast)
{
    const std::pair<int, QStringList> cases[] = {
        {0, {}},
        {EAGAIN, {"Writing to /dev/video10 failed: Resource temporarily unavailable"}},
        {ENODEV,
         {"Writing to /dev/video10 failed: No such device (the device is gone: no more frames are "
          "written to it)"}}};
    for (const auto &[error, lines] : cases) {
        SCOPED_TRACE(error);
        const bool gone = error == ENODEV;
        auto device = std::make_shared<FakeLoopbackDevice>();
        std::atomic<int> altered{0};
        auto sink = std::make_unique<LoopbackSink>(
            kNode, [&] { ++altered; }, device);
        ASSERT_EQ(sink->start(), 0);
        ASSERT_TRUE(device->waitForWriteCalls(1));
        test::SystemLogCapture log;
        device->setWriteError(error);
        ASSERT_EQ(sink->enqueue(frame()), 0);
        ASSERT_TRUE(device->waitForWriteCalls(2));
        EXPECT_TRUE(QTest::qWaitFor([&] { return altered == 1 || sink->isLost(); }, 1000));
        EXPECT_EQ(sink->isLost(), gone);
        EXPECT_EQ(sink->enqueue(frame()), gone ? ENODEV : 0);
        EXPECT_TRUE(gone || device->waitForWriteCalls(3));
        const auto began = Clock::now();
        EXPECT_TRUE(sink->stop());
        EXPECT_LT(Clock::now() - began, LoopbackSink::kStopTimeout / 2);
        for (const std::thread::id writer : device->writerThreads())
            EXPECT_NE(writer, std::this_thread::get_id());
        EXPECT_EQ(device->writerThreads().size(), gone ? 2u : 3u);
        EXPECT_EQ(device->framesTaken(), error ? 1 : 3);
        EXPECT_EQ(log.lines(), lines);
        sink.reset();
        EXPECT_EQ(device->openDescriptors(), gone ? 1 : 0);
    }
}

// A write that never returns holds up neither start() nor stop(): stopping gives the
// writer up after the bound, says so in the trace, and the process still exits. Run in a
// child (which a stuck writer cannot outlive) under a watchdog, so a hang fails.
TEST(LoopbackSinkDeathTest, AWriteThatNeverReturnsHoldsUpNeitherStartNorQuit)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto expect = [](bool holds, const char *what) {
        if (!holds) {
            std::fprintf(stderr, "not so: %s\n", what);
            std::_Exit(1);
        }
    };
    EXPECT_EXIT(
        {
            ::alarm(20);
            auto device = std::make_shared<FakeLoopbackDevice>();
            device->setWriteError(FakeLoopbackDevice::kNeverReturns);
            auto sink = std::make_unique<LoopbackSink>(
                kNode, [] {}, device);
            auto began = Clock::now();
            expect(sink->start() == 0 && Clock::now() - began < 500ms, "start() returned at once");
            expect(device->waitForWriteCalls(1), "the first frame is being written");
            sink->enqueue(frame());
            began = Clock::now();
            sink.reset(); // as at quit
            const auto took = Clock::now() - began;
            expect(took >= LoopbackSink::kStopTimeout - 100ms && took < LoopbackSink::kStopTimeout + 1s,
                   "stopping waited for the writer, and no longer than the bound");
            expect(test::readFile(traceLogPath()).contains("did not stop within 2 s: given up, stuck in a write"),
                   "the trace says what was given up");
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "Virtual camera writer did not stop within 2 s: given up, stuck in a write to /dev/video10");
}

} // namespace
} // namespace vistrel
