// The loopback sink against a stand-in for the v4l2loopback device: what reaches the
// device, and what the sink does when the device misbehaves (a write that never
// returns, a device that goes away).
#include "FakeLoopbackDevice.h"
#include "SystemLogCapture.h"
#include "TestHome.h"
#include "app/TraceLog.h"
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
using test::FakeLoopbackDevice;
using vcam::LoopbackSink;

const QString kNode = QStringLiteral("/dev/video10");

vcam::SampleBuffer frame()
{
    return {std::make_shared<vcam::PixelBuffer>(LoopbackSink::kWidth, LoopbackSink::kHeight), nullptr, 0};
}

// The device gets a black frame at once, from the writer (never from the caller of
// start()), then each frame enqueued; every frame taken is reported, and stopping an
// idle writer closes the device.
TEST(LoopbackSinkTest, FramesGoToTheDeviceFromTheWriterAndStoppingClosesIt)
{
    auto device = std::make_shared<FakeLoopbackDevice>();
    std::atomic<int> altered{0};
    {
        LoopbackSink sink(kNode, [&] { ++altered; }, device);
        ASSERT_EQ(sink.start(), 0);
        ASSERT_TRUE(device->waitForWriteCalls(1));
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(sink.enqueue(frame()), 0);
            ASSERT_TRUE(device->waitForWriteCalls(2 + i));
        }
        for (const std::thread::id writer : device->writerThreads())
            EXPECT_NE(writer, std::this_thread::get_id());
        EXPECT_EQ(device->framesTaken(), 3);
        EXPECT_TRUE(QTest::qWaitFor([&] { return altered == 2; }, 1000)); // each frame's take is reported
        const auto began = std::chrono::steady_clock::now();
        EXPECT_TRUE(sink.stop());
        EXPECT_LT(std::chrono::steady_clock::now() - began, LoopbackSink::kStopTimeout / 2);
        EXPECT_EQ(device->openDescriptors(), 1); // still the sink's until it goes
    }
    EXPECT_EQ(device->openDescriptors(), 0);
}

// A write failing because the device is gone (deleted, its module unloaded) is the
// last: one line, no more writes, and the sink says it is lost and takes no frames.
// Any other failure passes: one line per kind, and frames keep going to the device.
// A lost device's descriptor is not touched again, not even to close it.
TEST(LoopbackSinkTest, AWriteToAVanishedDeviceIsTheLast)
{
    const struct
    {
        int error;
        bool gone;
        QString line;
    } cases[] = {
        {ENODEV, true, "Writing to /dev/video10 failed: No such device (the device is gone: no more frames are written to it)"},
        {EIO, true, "Writing to /dev/video10 failed: Input/output error (the device is gone: no more frames are written "
         "to it)"},
        {EAGAIN, false, "Writing to /dev/video10 failed: Resource temporarily unavailable"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.error);
        auto device = std::make_shared<FakeLoopbackDevice>();
        auto owned = std::make_unique<LoopbackSink>(kNode, [] {}, device);
        LoopbackSink &sink = *owned;
        ASSERT_EQ(sink.start(), 0);
        ASSERT_TRUE(device->waitForWriteCalls(1));
        test::SystemLogCapture log;
        device->setWrites(FakeLoopbackDevice::Writes::Failing, c.error);
        ASSERT_EQ(sink.enqueue(frame()), 0);
        ASSERT_TRUE(device->waitForWriteCalls(2));
        ASSERT_TRUE(QTest::qWaitFor([&] { return sink.isLost(); }, 1000) == c.gone);
        EXPECT_EQ(sink.enqueue(frame()), c.gone ? ENODEV : 0);
        EXPECT_EQ(sink.enqueue(frame()), c.gone ? ENODEV : 0);
        if (!c.gone) {
            EXPECT_TRUE(device->waitForWriteCalls(4));
        }
        EXPECT_TRUE(sink.stop());
        EXPECT_EQ(device->writeCalls(), c.gone ? 2 : 4);
        EXPECT_EQ(log.lines(), QStringList{c.line});
        owned.reset();
        EXPECT_EQ(device->openDescriptors(), c.gone ? 1 : 0);
    }
}

// A write that never comes back (a device whose module went away) holds up neither
// start() nor stop(): stopping gives the writer up after the bound, says so, and the
// process still exits normally. Run in a child process, which a stuck writer cannot
// outlive, with a watchdog so that a hang fails instead of waiting forever.
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
            device->setWrites(FakeLoopbackDevice::Writes::NeverReturning);
            auto sink = std::make_unique<LoopbackSink>(kNode, [] {}, device);
            auto began = std::chrono::steady_clock::now();
            expect(sink->start() == 0, "the sink started");
            expect(std::chrono::steady_clock::now() - began < 500ms, "start() returned at once");
            expect(device->waitForWriteCalls(1), "the first frame is being written");
            expect(device->writerThreads().front() != std::this_thread::get_id(), "not by start()'s caller");
            sink->enqueue(frame());

            began = std::chrono::steady_clock::now();
            sink.reset(); // as at quit
            const auto took = std::chrono::steady_clock::now() - began;
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
