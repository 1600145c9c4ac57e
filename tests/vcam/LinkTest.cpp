#include "../camera/ControllerFixture.h"
#include "SimulatedExtension.h"
#include "app/Spinner.h"
#include "vcam/LoopbackPreview.h"
#include "vcam/PixelBuffer.h"

#include <QFrame>
#include <QLabel>
#include <QTimer>

namespace vistrel {
namespace {

using test::ConsoleCapture;

// The controller of the real interface file, linked to the simulated camera.
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

    static QImage solid(int width, int height, QColor colour)
    {
        QImage picture(width, height, QImage::Format_RGB32);
        picture.fill(colour);
        return picture;
    }

    // A picture whose left half is red and right half blue, so scaling and mirroring show.
    static QImage halves(int width, int height)
    {
        QImage picture = solid(width, height, Qt::blue);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width / 2; ++x)
                picture.setPixel(x, y, qRgb(255, 0, 0));
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

TEST_F(LinkTest, TwoStreamsOpenTheSinkBeforeTakingTheSource)
{
    ConsoleCapture console;
    vc->connectVirtualCamera();
    EXPECT_EQ(console.lines(),
              (QStringList{QStringLiteral("getDevice name= Vistrel"), QStringLiteral("showMessage found sink stream"),
                           QStringLiteral("showMessage initSink started"),
                           QStringLiteral("showMessage found source stream")}));
    const auto streams = sim.streamObjects(0);
    EXPECT_EQ(vc->sinkStream, streams[1]);
    EXPECT_EQ(vc->sourceStream, streams[0]);
    EXPECT_EQ(vc->sinkQueue, sim.queue);
    EXPECT_EQ(sim.startStreamCalls, 1);
    ASSERT_TRUE(vc->_videoDescription && vc->_bufferPool);
    EXPECT_EQ(vc->_videoDescription->codecType, vcam::codes::pixelFormatBGRA);
    EXPECT_EQ(vc->_videoDescription->width, 1280);
    EXPECT_EQ(vc->_videoDescription->height, 720);
}

TEST_F(LinkTest, OtherStreamCountsTakeOnlyTheSourceOrNothing)
{
    for (int count : {1, 3, 0}) {
        test::SimulatedExtension other;
        other.devices[0].streamCount = count;
        env.services.virtualCamera = &other;
        ViewController controller(env.services);
        ConsoleCapture console;
        controller.connectVirtualCamera();
        EXPECT_FALSE(controller.sinkStream) << count;
        EXPECT_FALSE(controller.sinkQueue);
        EXPECT_FALSE(controller._bufferPool);
        EXPECT_EQ(controller.sourceStream.has_value(), count > 0);
        const QStringList expected = count > 0 ? QStringList{QStringLiteral("getDevice name= Vistrel"),
                                                             QStringLiteral("showMessage found source stream")}
                                               : QStringList{QStringLiteral("getDevice name= Vistrel")};
        EXPECT_EQ(console.lines(), expected) << count;
    }
}

TEST_F(LinkTest, MissingOrMisnamedCamerasLeaveTheLinkUnconnected)
{
    const QStringList names = {QStringLiteral("vistrel"), QStringLiteral("Vistrel Camera")};
    for (const QString &name : names) {
        sim.devices[0].name = name;
        vc->connectVirtualCamera();
        EXPECT_FALSE(vc->sourceStream) << name.toStdString();
    }
    // Visible to capture discovery but not in the hardware list: silently unconnected.
    sim.devices[0].name = QStringLiteral("Vistrel");
    sim.devices[0].inHardwareList = false;
    ConsoleCapture console;
    vc->connectVirtualCamera();
    EXPECT_FALSE(vc->sourceStream);
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("getDevice name= Vistrel")});
}

TEST_F(LinkTest, SinkFailuresAreReportedAndDecideWhetherFramesFlow)
{
    {
        test::SimulatedExtension failing;
        failing.failCopyBufferQueue = true;
        env.services.virtualCamera = &failing;
        ViewController controller(env.services);
        ConsoleCapture console;
        controller.connectVirtualCamera();
        EXPECT_TRUE(console.lines().contains(QStringLiteral("showMessage error starting sink")));
        EXPECT_FALSE(console.lines().contains(QStringLiteral("showMessage initSink started")));
        EXPECT_FALSE(controller.sinkQueue);
        EXPECT_EQ(failing.startStreamCalls, 0);
        controller.needToStream = true;
        controller.currentImage = solid(64, 48, Qt::red);
        controller.fireTimer(); // nothing to send to, nothing breaks
        EXPECT_TRUE(controller.sourceStream);
    }
    sim.failStartStream = true;
    ConsoleCapture console;
    connectStreaming(solid(64, 48, Qt::red));
    EXPECT_TRUE(console.lines().contains(QStringLiteral("showMessage initSink error startstream")));
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 1); // the queue is kept and used
}

TEST_F(LinkTest, TheGateSendsTheFirstFrameAtOnceAndThenWaitsForTheConsumer)
{
    connectStreaming(solid(64, 48, Qt::green));
    vc->needToStream = false;
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);

    vc->needToStream = true;
    vc->currentImage.reset();
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);

    vc->currentImage = solid(64, 48, Qt::green);
    vc->fireTimer();
    vc->fireTimer(); // the consumer has not taken the first one yet
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);
    ASSERT_TRUE(sim.queue->takeFrame());
    EXPECT_TRUE(vc->readyToEnqueue);
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 2);
    EXPECT_FALSE(vc->readyToEnqueue);
}

TEST_F(LinkTest, PicturesAreStretchedToTheFullFrameAndMirroredOnRequest)
{
    for (const QSize size : {QSize(640, 480), QSize(1920, 1080), QSize(8, 3)}) {
        connectStreaming(halves(size.width(), size.height()));
        vc->enqueued = false;
        vc->fireTimer();
        ASSERT_TRUE(sim.queue->takeFrame());
        const QImage frame = sim.queue->lastFrame();
        ASSERT_EQ(frame.size(), QSize(1280, 720));
        // Stretched, not letterboxed: every corner is painted and the halves meet mid-frame.
        EXPECT_EQ(frame.pixel(0, 0), qRgb(255, 0, 0)) << size.width();
        EXPECT_EQ(frame.pixel(0, 719), qRgb(255, 0, 0));
        EXPECT_EQ(frame.pixel(1279, 0), qRgb(0, 0, 255));
        EXPECT_EQ(frame.pixel(1279, 719), qRgb(0, 0, 255));
        EXPECT_EQ(frame.pixel(630, 360), qRgb(255, 0, 0));
        EXPECT_EQ(frame.pixel(650, 360), qRgb(0, 0, 255));
    }
    vc->mirrorCamera = true;
    vc->currentImage = halves(640, 480);
    vc->fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    const QImage mirrored = sim.queue->lastFrame();
    EXPECT_EQ(mirrored.pixel(1279, 360), qRgb(255, 0, 0));
    EXPECT_EQ(mirrored.pixel(0, 360), qRgb(0, 0, 255));
    EXPECT_GT(sim.queue->lastPresentationTimeNs(), 0);
}

TEST_F(LinkTest, ASteadyStreamKeepsOnlyTheBuffersInFlight)
{
    connectStreaming(solid(64, 48, Qt::green));
    for (int frame = 0; frame < 30; ++frame) {
        vc->fireTimer();
        ASSERT_TRUE(sim.queue->takeFrame());
    }
    EXPECT_EQ(sim.queue->framesEnqueued(), 30);
    // One buffer in the preview, one on its way: the pool's spare buffers are never made.
    EXPECT_LE(vc->_bufferPool->bufferCount(), 2);
}

TEST_F(LinkTest, AFullQueueOrAnEmptyPoolDropsTheFrameWithALine)
{
    sim.queueCapacity = 1;
    connectStreaming(solid(32, 32, Qt::red));
    vc->fireTimer();
    ASSERT_EQ(sim.queue->count(), 1);

    // Queue full: reported before any pixel buffer is taken from the pool.
    std::vector<std::shared_ptr<vcam::PixelBuffer>> held;
    QStringList lines;
    {
        ConsoleCapture console;
        vc->readyToEnqueue = true;
        vc->fireTimer();
        lines = console.lines();
    }
    EXPECT_EQ(lines, QStringList{QStringLiteral("error enqueuing")});
    while (auto buffer = vc->_bufferPool->createPixelBuffer())
        held.push_back(buffer);
    EXPECT_EQ(static_cast<int>(held.size()), vc->_bufferPool->bufferCount() - 1); // one sits in the queue

    ASSERT_TRUE(sim.queue->takeFrame()); // its buffer comes back: take that one as well
    while (auto buffer = vc->_bufferPool->createPixelBuffer())
        held.push_back(buffer);
    {
        ConsoleCapture console;
        vc->fireTimer();
        lines = console.lines();
    }
    EXPECT_EQ(lines, QStringList{QStringLiteral("error getting pixel buffer")});
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

    const std::vector<std::pair<QString, bool>> answers = {
        {QStringLiteral("sc=1"), true},  {QStringLiteral(""), false},     {QStringLiteral("sc=0"), false},
        {QStringLiteral("sc=1"), true},  {QStringLiteral("SC=1"), false}, {QStringLiteral("sc=11"), false},
        {QStringLiteral(" sc=1"), false}};
    for (const auto &[answer, wanted] : answers) {
        sim.justAnswer = answer;
        vc->pollStreamState();
        EXPECT_EQ(vc->needToStream, wanted) << answer.toStdString();
    }
    EXPECT_EQ(sim.justWrites.back(), QStringLiteral("random"));
    EXPECT_EQ(sim.justWrites.size(), answers.size());

    vc->needToStream = true;
    sim.justAnswer.reset(); // the property is gone: the gate stays as it was
    vc->pollStreamState();
    EXPECT_TRUE(vc->needToStream);
}

TEST_F(LinkTest, StartUpRunsTheLinkAndShowsTheFramesSentInThePreview)
{
    sim.justAnswer = QStringLiteral("sc=1");
    ConsoleCapture console; // keeps the link's messages out of the test output
    vc->startVirtualCameraLink();
    ASSERT_TRUE(vc->timer && vc->propTimer);
    EXPECT_EQ(vc->timer->interval(), 33);
    EXPECT_EQ(vc->timer->timerType(), Qt::PreciseTimer);
    EXPECT_EQ(vc->propTimer->interval(), 2000);
    ASSERT_TRUE(vc->debugCaption);
    EXPECT_FALSE(vc->debugCaption->isVisible());
    auto *preview = qobject_cast<vcam::LoopbackPreview *>(vc->virtualCameraView);
    ASSERT_TRUE(preview);
    ASSERT_TRUE(vc->previewSpinner);
    EXPECT_TRUE(vc->previewSpinner->isAnimating());

    // The camera's pictures reach the queue once the poll opens the gate; the preview
    // shows them and the spinner goes.
    sim.queue->startReader(std::chrono::milliseconds(5));
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim.queue->framesTaken() >= 10; }, 8000));
    EXPECT_TRUE(preview->hasFrame());
    EXPECT_FALSE(vc->previewSpinner->isAnimating());
    EXPECT_TRUE(vc->previewSpinner->isHidden());
    EXPECT_NE(sim.queue->lastFrame().pixel(640, 360), qRgb(0, 0, 0));

    // A second start-up replaces the timers rather than adding to them.
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
    const QRect spinner = vc->previewSpinner->geometry();
    EXPECT_NEAR(spinner.center().x(), box->rect().center().x(), 1);
    EXPECT_NEAR(spinner.center().y(), box->rect().center().y() - 12, 1);
    EXPECT_EQ(label->geometry().top(), spinner.bottom() + 1 + 8);
    EXPECT_NEAR(label->geometry().center().x(), box->rect().center().x(), 1);

    // A camera whose input cannot be opened, or no camera at all, gives no preview, only
    // a French line; the placeholder stays.
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

} // namespace
} // namespace vistrel
