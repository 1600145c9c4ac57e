// The controller's link to the virtual camera, with the simulated camera: finding its
// streams, the gate, the frames sent, the start-up and the preview's placeholder.
#include "../camera/ControllerFixture.h"
#include "SimulatedExtension.h"
#include "app/Spinner.h"
#include "vcam/LoopbackPreview.h"
#include "vcam/PixelBuffer.h"

#include <QFrame>
#include <QLabel>
#include <QTimer>
#include <set>

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

// Two streams: the sink (the second) is opened before the source is taken. Other counts
// take only the source, or nothing; a camera missing from the hardware list is
// silently left unconnected.
TEST_F(LinkTest, ConnectingFindsTheStreams)
{
    const QString found = QStringLiteral("getDevice name= Vistrel");
    const QString source = QStringLiteral("showMessage found source stream");
    const struct
    {
        int streams;
        bool listed;
        QStringList lines;
    } cases[] = {{2, true, {found, "showMessage found sink stream", "showMessage initSink started", source}},
                 {1, true, {found, source}},
                 {3, true, {found, source}},
                 {0, true, {found}},
                 {2, false, {found}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.streams << " streams, listed " << c.listed);
        test::SimulatedExtension other;
        other.devices[0].streamCount = c.streams;
        other.devices[0].inHardwareList = c.listed;
        env.services.virtualCamera = &other;
        ViewController controller(env.services);
        ConsoleCapture console;
        controller.connectVirtualCamera();
        EXPECT_EQ(console.lines(), c.lines);
        const auto streams = other.streamObjects(0);
        const bool sink = c.lines.size() == 4;
        EXPECT_EQ(controller.sinkStream, sink ? std::optional(streams[1]) : std::nullopt);
        EXPECT_EQ(controller.sourceStream, c.lines.size() > 1 ? std::optional(streams[0]) : std::nullopt);
        EXPECT_EQ(static_cast<bool>(controller._bufferPool), sink);
        EXPECT_EQ(other.startStreamCalls, sink ? 1 : 0);
    }
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
        EXPECT_EQ(failing.startStreamCalls, 0);
        controller.needToStream = true;
        controller.currentImage = solid(Qt::red);
        controller.fireTimer(); // nothing to send to, nothing breaks
        EXPECT_TRUE(controller.sourceStream);
    }
    sim.failStartStream = true;
    ConsoleCapture console;
    connectStreaming(solid(Qt::red));
    EXPECT_TRUE(console.lines().contains(QStringLiteral("showMessage initSink error startstream")));
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 1); // the queue is kept and used
}

TEST_F(LinkTest, TheGateSendsTheFirstFrameAtOnceAndThenWaitsForTheConsumer)
{
    connectStreaming(solid(Qt::green));
    vc->needToStream = false;
    vc->fireTimer();
    vc->needToStream = true;
    vc->currentImage.reset();
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);

    vc->currentImage = solid(Qt::green);
    vc->fireTimer();
    vc->fireTimer(); // the consumer has not taken the first one yet
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);
    ASSERT_TRUE(sim.queue->takeFrame());
    vc->fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 2);

    // A steady stream keeps only the buffers in flight: the pool's spares are never made.
    for (int frame = 0; frame < 30; ++frame) {
        ASSERT_TRUE(sim.queue->takeFrame());
        vc->fireTimer();
    }
    EXPECT_LE(vc->_bufferPool->bufferCount(), 2);
}

TEST_F(LinkTest, PicturesAreStretchedToTheFullFrameAndMirroredOnRequest)
{
    for (const QSize size : {QSize(640, 480), QSize(1920, 1080), QSize(8, 3)}) {
        SCOPED_TRACE(size.width());
        connectStreaming(halves(size.width(), size.height()));
        vc->enqueued = false;
        vc->fireTimer();
        ASSERT_TRUE(sim.queue->takeFrame());
        const QImage frame = sim.queue->lastFrame();
        ASSERT_EQ(frame.size(), QSize(1280, 720));
        // Stretched, not letterboxed: the corners are painted and the halves meet mid-frame.
        EXPECT_EQ(frame.pixel(0, 0), qRgb(255, 0, 0));
        EXPECT_EQ(frame.pixel(1279, 719), qRgb(0, 0, 255));
        EXPECT_EQ(frame.pixel(630, 360), qRgb(255, 0, 0));
        EXPECT_EQ(frame.pixel(650, 360), qRgb(0, 0, 255));
    }
    vc->mirrorCamera = true;
    vc->currentImage = halves(640, 480);
    vc->fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    EXPECT_EQ(sim.queue->lastFrame().pixel(1279, 360), qRgb(255, 0, 0));
    EXPECT_EQ(sim.queue->lastFrame().pixel(0, 360), qRgb(0, 0, 255));
    EXPECT_GT(sim.queue->lastPresentationTimeNs(), 0);
}

TEST_F(LinkTest, AFullQueueOrAnEmptyPoolDropsTheFrameWithALine)
{
    sim.queueCapacity = 1;
    connectStreaming(solid(Qt::red, 32, 32));
    vc->fireTimer();
    ASSERT_EQ(sim.queue->count(), 1);

    // Queue full: reported before any pixel buffer is taken from the pool.
    std::vector<std::shared_ptr<vcam::PixelBuffer>> held;
    auto linesOfATick = [&] {
        ConsoleCapture console;
        vc->fireTimer();
        return console.lines();
    };
    vc->readyToEnqueue = true;
    EXPECT_EQ(linesOfATick(), QStringList{QStringLiteral("error enqueuing")});
    while (auto buffer = vc->_bufferPool->createPixelBuffer())
        held.push_back(buffer);
    EXPECT_EQ(static_cast<int>(held.size()), vc->_bufferPool->bufferCount() - 1); // one sits in the queue

    ASSERT_TRUE(sim.queue->takeFrame()); // its buffer comes back: take that one as well
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

    const std::pair<QString, bool> answers[] = {{"sc=1", true},  {"", false},      {"sc=0", false}, {"sc=1", true},
                                                {"SC=1", false}, {"sc=11", false}, {" sc=1", false}};
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

// The whole link with a real moving test camera and a reader: the preview shows the
// frames sent, Freeze holds them byte-identical, and a second start-up replaces the timers.
TEST_F(LinkTest, StartUpStreamsTheCameraAndFreezeHoldsItsPicture)
{
    ConsoleCapture console; // keeps the link's messages out of the test output
    vc->startVirtualCameraLink();
    ASSERT_TRUE(vc->timer && vc->propTimer && vc->debugCaption && vc->previewSpinner);
    EXPECT_FALSE(vc->debugCaption->isVisible());
    auto *preview = qobject_cast<vcam::LoopbackPreview *>(vc->virtualCameraView);
    ASSERT_TRUE(preview);
    EXPECT_TRUE(vc->previewSpinner->isAnimating());

    choose(indexOf(test::TestCameraProvider::kMovingName));
    sim.queue->startReader(std::chrono::milliseconds(1));
    vc->pollStreamState(); // the 2 s poll, now rather than later
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim.queue->framesTaken() >= 10; }, 8000));
    EXPECT_TRUE(preview->hasFrame());
    EXPECT_TRUE(vc->previewSpinner->isHidden());
    EXPECT_FALSE(vc->previewSpinner->isAnimating());

    // Digests of the frames the reader takes during the next second: ~30 on an idle
    // machine, fewer on a loaded one.
    const auto framesOfASecond = [&] {
        const std::size_t before = sim.queue->frameDigests().size();
        QTest::qWait(1000);
        const auto all = sim.queue->frameDigests();
        return std::vector<std::size_t>(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
    };
    const auto distinct = [](const std::vector<std::size_t> &frames) {
        return std::set<std::size_t>(frames.begin(), frames.end()).size();
    };
    const auto live = framesOfASecond();
    ASSERT_GE(live.size(), 8u);
    EXPECT_GE(distinct(live), 4u);
    vc->toggleFreeze();
    QTest::qWait(100); // a frame already on its way may still differ
    const auto frozen = framesOfASecond();
    ASSERT_GE(frozen.size(), 8u); // the held picture keeps going out at the tick rate
    EXPECT_EQ(distinct(frozen), 1u);
    vc->toggleFreeze(); // the camera kept running underneath: the pictures move at once
    EXPECT_GE(distinct(framesOfASecond()), 4u);

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
    EXPECT_GT(label->geometry().top(), spinner.bottom());

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

} // namespace
} // namespace vistrel
