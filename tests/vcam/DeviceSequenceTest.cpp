// The loopback backend's calls on its device, against a device that behaves as each
// v4l2loopback release does: what it calls at start, while writing, at the reader-count
// poll and at stop, and what it answers.
#include "FakeLoopbackDevice.h"
#include "FakeLoopbackMachine.h"
#include "vcam/PixelBuffer.h"
#include "vcam/PropertyAccess.h"
#include "vcam/v4l2loopback/LoopbackSink.h"
#include "vcam/v4l2loopback/LoopbackSystem.h"

#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

using test::FakeLoopbackDevice;
using Release = FakeLoopbackDevice::Release;

TEST(LoopbackDeviceSequenceTest, EachReleaseGetsItsOwnSequenceAndReaderCount)
{
    const struct
    {
        const char *name;
        Release release;
        bool offersOutput;
        const char *start, *writing, *poll, *answers, *stop;
    } rows[] = {
        // Stream-on kept until stop (exclusive_caps needs it); no reader count: always "sc=1".
        {"0.12.7", Release::V0_12, true, "open querycap s_parm s_fmt streamon subscribe! write", "write", "",
         "sc=1 sc=1", "streamoff close"},
        {"0.13.x", Release::V0_13, true, "open querycap s_parm s_fmt streamon subscribe write", "write",
         "dqevent dqevent! dqevent dqevent!", "sc=1 sc=0", "streamoff close"},
        // Stream-on refused: plain write(), nothing to stop.
        {"0.15", Release::V0_15, true, "open querycap s_parm s_fmt streamon! subscribe write", "write",
         "dqevent dqevent! dqevent dqevent!", "sc=1 sc=0", "close"},
        // Another program writes to it already: not started, and nothing asked of it after.
        {"0.15, busy", Release::V0_15, false, "open querycap close", "", "", "sc=1 sc=1", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        test::FakeLoopbackMachine machine;
        machine.loadModule("0", "Vistrel");
        machine.write("dev/video10", {});
        auto device = std::make_shared<FakeLoopbackDevice>(row.release);
        device->setOffersOutput(row.offersOutput);
        LoopbackSystem system{machine.path("sys"), machine.path("dev"), device};
        const auto found = findDeviceByUID(system, machine.path("dev/video10"));
        ASSERT_TRUE(found);
        const std::vector<ObjectID> streams = getStreams(system, *found);
        ASSERT_EQ(streams.size(), 2u);
        const auto calls = [&] { return device->takeCalls().join(' ').toStdString(); };

        std::shared_ptr<SimpleQueue> queue;
        ASSERT_EQ(system.copyBufferQueue(
                      streams[1], [] {}, &queue),
                  0);
        EXPECT_EQ(system.startStream(*found, streams[1]), row.offersOutput ? 0 : EBUSY);
        // The start ends with a black frame, written by the writer thread.
        if (row.offersOutput) {
            ASSERT_TRUE(device->waitForWriteCalls(1));
        }
        EXPECT_EQ(calls(), row.start);

        if (row.offersOutput) {
            ASSERT_EQ(queue->enqueue(
                          {std::make_shared<PixelBuffer>(LoopbackSink::kWidth, LoopbackSink::kHeight), nullptr, 0}),
                      0);
            ASSERT_TRUE(device->waitForWriteCalls(2));
            EXPECT_EQ(device->framesTaken(), 2);
        }
        EXPECT_EQ(calls(), row.writing);

        QStringList answers; // one reader, then none
        answers << readJustProperty(system, streams[0]).value_or("none");
        device->setReaders(0);
        answers << readJustProperty(system, streams[0]).value_or("none");
        EXPECT_EQ(answers.join(' ').toStdString(), row.answers);
        EXPECT_EQ(calls(), row.poll);

        queue.reset();
        EXPECT_EQ(calls(), row.stop);
        EXPECT_EQ(device->openDescriptors(), 0);
    }
}

} // namespace
} // namespace vistrel::vcam
