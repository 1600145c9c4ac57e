// The controller's link to the virtual camera, with the simulated camera: finding its
// streams, the gate, the frames sent, the start-up and the preview's placeholder.
// Streaming, Freeze and Stutter on a real loopback device are left to the VM lab.
#include "../camera/ControllerFixture.h"
#include "FakeLoopbackDevice.h"
#include "FakeLoopbackMachine.h"
#include "SimulatedExtension.h"
#include "app/Spinner.h"
#include "vcam/LoopbackPreview.h"
#include "vcam/PixelBuffer.h"
#include "vcam/v4l2loopback/LoopbackSystem.h"

#include <QFrame>
#include <QLabel>
#include <QPainter>
#include <QTimer>

namespace vistrel {
namespace {

using test::ConsoleCapture;

class LinkTest : public test::ControllerFixture
{
protected:
    void SetUp() override
    {
        env.services.virtualCamera = &sim;
        ControllerFixture::SetUp();
    }
    void TearDown() override
    {
        if (sim.queue)
            sim.queue->stopReader();
    }

    static QImage solid(QColor colour, int width = 64, int height = 48)
    {
        QImage picture(width, height, QImage::Format_RGB32);
        picture.fill(colour);
        return picture;
    }

    // Left half red, right half blue, so scaling and mirroring show.
    static QImage halves(int width, int height)
    {
        QImage picture = solid(Qt::blue, width, height);
        QPainter(&picture).fillRect(0, 0, width / 2, height, Qt::red);
        return picture;
    }

    void connectStreaming(const QImage &picture)
    {
        vc->connectVirtualCamera();
        ASSERT_TRUE(sim.queue);
        vc->needToStream = true;
        vc->currentImage = picture;
    }

    test::SimulatedExtension sim;
};

// Two streams: the sink (the second) is opened before the source; a sink without a queue
// sends nothing, one that fails to start keeps its queue and sends. One stream (as any
// other count) is only the source; none, or a camera not in the hardware list, nothing.
TEST_F(LinkTest, ConnectingFindsTheStreams)
{
    const QString found = QStringLiteral("getDevice name= Vistrel");
    const QString sink = QStringLiteral("showMessage found sink stream");
    const QString source = QStringLiteral("showMessage found source stream");
    const struct
    {
        int streams;
        bool listed, failCopy, failStart, sends;
        QStringList lines;
    } cases[] = {{2, true, false, false, true, {found, sink, "showMessage initSink started", source}},
                 {2, true, true, false, false, {found, sink, "showMessage error starting sink", source}},
                 {2, true, false, true, true, {found, sink, "showMessage initSink error startstream", source}},
                 {1, true, false, false, false, {found, source}},
                 {0, true, false, false, false, {found}},
                 {2, false, false, false, false, {found}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.streams << " streams, listed " << c.listed << ", failing "
                                        << c.failCopy << c.failStart);
        test::SimulatedExtension other;
        other.devices[0].streamCount = c.streams;
        other.devices[0].inHardwareList = c.listed;
        other.failCopyBufferQueue = c.failCopy;
        other.failStartStream = c.failStart;
        env.services.virtualCamera = &other;
        ViewController controller(env.services);
        ConsoleCapture console;
        controller.connectVirtualCamera();
        EXPECT_EQ(console.lines(), c.lines);
        const auto streams = other.streamObjects(0);
        EXPECT_EQ(controller.sinkStream, c.lines.size() == 4 ? std::optional(streams[1]) : std::nullopt);
        EXPECT_EQ(controller.sourceStream, c.lines.size() > 1 ? std::optional(streams[0]) : std::nullopt);
        controller.needToStream = true;
        controller.currentImage = solid(Qt::red);
        controller.fireTimer(); // with nothing to send to, nothing breaks
        EXPECT_EQ(other.queue && other.queue->framesEnqueued() == 1, c.sends);
    }
}

TEST_F(LinkTest, PicturesAreStretchedToTheFullFrameAndMirroredOnRequest)
{
    // Every size takes the same scaler; a tiny one with an odd height shows rounding.
    connectStreaming(halves(8, 3));
    vc->fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    const QImage frame = sim.queue->lastFrame();
    ASSERT_EQ(frame.size(), QSize(1280, 720));
    // Stretched, not letterboxed: the corners are painted and the halves meet mid-frame.
    EXPECT_EQ(frame.pixel(0, 0), qRgb(255, 0, 0));
    EXPECT_EQ(frame.pixel(1279, 719), qRgb(0, 0, 255));
    EXPECT_EQ(frame.pixel(630, 360), qRgb(255, 0, 0));
    EXPECT_EQ(frame.pixel(650, 360), qRgb(0, 0, 255));
    vc->mirrorCamera = true;
    vc->currentImage = halves(640, 480);
    vc->fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    EXPECT_EQ(sim.queue->lastFrame().pixel(1279, 360), qRgb(255, 0, 0));
    EXPECT_EQ(sim.queue->lastFrame().pixel(0, 360), qRgb(0, 0, 255));
    EXPECT_GT(sim.queue->lastPresentationTimeNs(), 0);
}

// Nothing is sent without a reader or a picture; the first frame goes at once, the next
// once the consumer has taken one. A full queue or an empty pool drops the frame with a
// line, and frames flow again once buffers come back.
TEST_F(LinkTest, TheGateAndDroppedFrames)
{
    sim.queueCapacity = 1;
    connectStreaming(solid(Qt::red, 32, 32));
    vc->needToStream = false;
    vc->fireTimer();
    vc->needToStream = true;
    vc->currentImage.reset();
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);
    vc->currentImage = solid(Qt::red, 32, 32);
    vc->fireTimer();
    vc->fireTimer(); // the consumer has not taken the first one yet
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);

    // Queue full: reported before any pixel buffer is taken from the pool.
    const auto linesOfATick = [&] {
        ConsoleCapture console;
        vc->fireTimer();
        return console.lines();
    };
    vc->readyToEnqueue = true;
    EXPECT_EQ(linesOfATick(), QStringList{QStringLiteral("error enqueuing")});

    ASSERT_TRUE(sim.queue->takeFrame()); // the consumer takes it; every buffer is then held
    std::vector<std::shared_ptr<vcam::PixelBuffer>> held;
    while (auto buffer = vc->_bufferPool->createPixelBuffer())
        held.push_back(buffer);
    EXPECT_EQ(linesOfATick(), QStringList{QStringLiteral("error getting pixel buffer")});
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);

    held.clear(); // buffers go back to the pool and frames flow again
    vc->readyToEnqueue = true;
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 2);
}

TEST_F(LinkTest, ThePollWritesRandomAndOnlyExactlyScOneOpensTheGate)
{
    vc->pollStreamState(); // no source stream yet: nothing asked
    EXPECT_TRUE(sim.justWrites.empty());
    vc->connectVirtualCamera();

    // Only an exact "sc=1" opens it; a longer text is no match.
    const std::pair<QString, bool> answers[] = {{"sc=1", true}, {"sc=0", false}, {"sc=1", true}, {"sc=11", false}};
    for (const auto &[answer, wanted] : answers) {
        sim.justAnswer = answer;
        vc->pollStreamState();
        EXPECT_EQ(vc->needToStream, wanted) << answer.toStdString();
    }
    EXPECT_EQ(sim.justWrites, std::vector<QString>(std::size(answers), QStringLiteral("random")));

    vc->needToStream = true;
    sim.justAnswer.reset(); // the property is gone: the gate stays as it was
    vc->pollStreamState();
    EXPECT_TRUE(vc->needToStream);
}

// The whole start-up with a real test camera and a reader: the preview shows the frames
// sent and its spinner goes; a second start-up replaces the timers.
TEST_F(LinkTest, StartUpStreamsTheCameraIntoThePreview)
{
    ConsoleCapture console; // keeps the link's messages out of the test output
    vc->startVirtualCameraLink();
    auto *preview = qobject_cast<vcam::LoopbackPreview *>(vc->virtualCameraView);
    ASSERT_TRUE(preview && vc->debugCaption && vc->previewSpinner);
    EXPECT_FALSE(vc->debugCaption->isVisible());
    EXPECT_TRUE(vc->previewSpinner->isAnimating());

    sim.queue->startReader(std::chrono::milliseconds(1));
    vc->pollStreamState(); // the 2 s poll, now rather than later
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim.queue->framesTaken() >= 10; }, 8000));
    EXPECT_TRUE(preview->hasFrame());
    EXPECT_TRUE(vc->previewSpinner->isHidden());

    QPointer<QTimer> firstTimer = vc->timer;
    vc->startVirtualCameraLink();
    EXPECT_TRUE(firstTimer.isNull());
}

TEST_F(LinkTest, ThePlaceholderCentresItsSpinnerAndStaysWhenThereIsNoPreview)
{
    window->resize(800, 600);
    window->show();
    QFrame *box = vc->boxPreview;
    ASSERT_TRUE(vc->previewSpinner);
    QLabel *label = nullptr;
    for (QLabel *candidate : box->findChildren<QLabel *>())
        if (candidate->text() == QStringLiteral("Connecting to camera…"))
            label = candidate;
    ASSERT_TRUE(label);
    EXPECT_TRUE(label->isVisible());
    EXPECT_NEAR(vc->previewSpinner->geometry().center().x(), box->rect().center().x(), 1);

    // A camera whose input cannot be opened, or no camera at all: no preview, a French
    // line, and the placeholder stays.
    sim.captureInputFailure = QStringLiteral("The device node /dev/video10 does not exist.");
    ConsoleCapture console;
    vc->showVirtualCameraPreview();
    sim.devices.clear();
    vc->showVirtualCameraPreview();
    EXPECT_EQ(console.lines(), (QStringList{QStringLiteral("Erreur lors de la configuration de la caméra virtuelle : "
                                                           "The device node /dev/video10 does not exist."),
                                            QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée.")}));
    EXPECT_EQ(vc->virtualCameraView, nullptr);
    EXPECT_TRUE(label->isVisible());
}

// The link over the real v4l2loopback backend, on a machine whose "Vistrel" device the
// test can make vanish and come back.
class LoopbackLinkTest : public test::ControllerFixture
{
protected:
    void SetUp() override
    {
        machine.loadModule("0.14.0", "Vistrel");
        machine.write("dev/video10", {});
        env.services.virtualCamera = &system;
        ControllerFixture::SetUp();
    }
    test::FakeLoopbackMachine machine;
    std::shared_ptr<test::FakeLoopbackDevice> device = std::make_shared<test::FakeLoopbackDevice>();
    vcam::LoopbackSystem system{machine.path("sys"), machine.path("dev"), device};
};

// Once a write finds the device gone, the next poll shows the window as it is without a
// virtual camera (once, not at every poll); once it is back, a poll connects and feeds it.
TEST_F(LoopbackLinkTest, AVanishedCameraIsShownGoneAndFedAgainWhenItComesBack)
{
    ConsoleCapture console;
    const auto fed = [&] {
        vc->propertyTimer();
        const int taken = device->framesTaken();
        const auto flowing = [&] { vc->fireTimer(); return device->framesTaken() >= taken + 3; };
        return vc->needToStream && QTest::qWaitFor(flowing, 5000) && vc->virtualCameraView && vc->previewSpinner->isHidden();
    };
    vc->connectVirtualCamera();
    vc->showVirtualCameraPreview();
    vc->currentImage = QImage(64, 48, QImage::Format_RGB32);
    ASSERT_TRUE(fed());

    QDir(machine.path("sys/class/video4linux/video10")).removeRecursively();
    device->setWriteError(ENODEV);
    ASSERT_TRUE(QTest::qWaitFor([&] { vc->fireTimer(); return vc->sinkQueue->isLost(); }, 5000));
    const qsizetype before = console.lines().size();
    for (int poll = 0; poll < 3; ++poll)
        vc->propertyTimer();
    EXPECT_EQ(console.lines().mid(before), QStringList{QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée.")});
    EXPECT_FALSE(vc->needToStream);
    EXPECT_EQ(vc->virtualCameraView, nullptr);
    EXPECT_TRUE(vc->previewSpinner->isVisibleTo(vc) && vc->previewSpinner->isAnimating());

    machine.addDevice(10, "Vistrel", true);
    device->setWriteError(0);
    EXPECT_TRUE(fed());
}

} // namespace
} // namespace vistrel
