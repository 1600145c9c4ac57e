// The controller's link to the virtual camera, with the simulated camera: finding its
// streams, the gate, the frames sent, the start-up and the preview's placeholder.
// Streaming, Freeze and Stutter on a real loopback device are left to the VM lab.
#include "../camera/ControllerFixture.h"
#include "FakeLoopbackDevice.h"
#include "FakeLoopbackMachine.h"
#include "SimulatedExtension.h"
#include "ui/LoopbackPreview.h"
#include "ui/Spinner.h"
#include "vcam/PixelBuffer.h"
#include "vcam/VirtualCameraLink.h"
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

    vcam::VirtualCameraLink &link() { return vc->link(); }
    Spinner *spinner() { return vc->findChild<Spinner *>(); }
    LoopbackPreview *preview() { return vc->findChild<LoopbackPreview *>(); }

    // Someone reads the camera, or nobody: the source stream's answer, as the poll reads it.
    void setReader(bool reading)
    {
        sim.justAnswer = reading ? QStringLiteral("sc=1") : QStringLiteral("sc=0");
        link().pollStreamState();
        ASSERT_EQ(link().needToStream(), reading);
    }

    void connectStreaming(const QImage &picture)
    {
        link().connectVirtualCamera();
        ASSERT_TRUE(sim.queue);
        setReader(true);
        link().setCurrentImage(picture);
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
        SCOPED_TRACE(testing::Message() << c.streams << " streams, listed " << c.listed << ", failing " << c.failCopy
                                        << c.failStart);
        test::SimulatedExtension other;
        other.devices[0].streamCount = c.streams;
        other.devices[0].inHardwareList = c.listed;
        other.failCopyBufferQueue = c.failCopy;
        other.failStartStream = c.failStart;
        env.services.virtualCamera = &other;
        ViewController controller(env.services);
        ConsoleCapture console;
        controller.link().connectVirtualCamera();
        EXPECT_EQ(console.lines(), c.lines);
        const auto streams = other.streamObjects(0);
        EXPECT_EQ(controller.link().sinkStream(), c.lines.size() == 4 ? std::optional(streams[1]) : std::nullopt);
        EXPECT_EQ(controller.link().sourceStream(), c.lines.size() > 1 ? std::optional(streams[0]) : std::nullopt);
        other.justAnswer = QStringLiteral("sc=1");
        controller.link().pollStreamState();
        controller.link().setCurrentImage(solid(Qt::red));
        controller.link().fireTimer(); // with nothing to send to, nothing breaks
        EXPECT_EQ(other.queue && other.queue->framesEnqueued() == 1, c.sends);
    }
}

// Stretched smoothly: a larger picture's one-pixel stripes turn grey instead of into
// wider stripes, and a picture of the frame's size goes out as it is.
TEST_F(LinkTest, PicturesAreStretchedSmoothlyToTheFullFrameAndMirroredOnRequest)
{
    // Every size takes the same scaler; a tiny one with an odd height shows rounding.
    connectStreaming(halves(8, 3));
    link().fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    const QImage frame = sim.queue->lastFrame();
    ASSERT_EQ(frame.size(), QSize(1280, 720));
    // Stretched, not letterboxed: the corners are painted and the halves meet mid-frame,
    // blended where they meet (within the stretch's 1/128).
    const auto near = [](QRgb pixel, QRgb colour) {
        return std::abs(qRed(pixel) - qRed(colour)) <= 2 && std::abs(qGreen(pixel) - qGreen(colour)) <= 2
            && std::abs(qBlue(pixel) - qBlue(colour)) <= 2;
    };
    EXPECT_TRUE(near(frame.pixel(0, 0), qRgb(255, 0, 0)));
    EXPECT_TRUE(near(frame.pixel(1279, 719), qRgb(0, 0, 255)));
    EXPECT_TRUE(near(frame.pixel(400, 360), qRgb(255, 0, 0)));
    EXPECT_TRUE(near(frame.pixel(880, 360), qRgb(0, 0, 255)));
    EXPECT_GT(qRed(frame.pixel(640, 360)), 64);
    EXPECT_GT(qBlue(frame.pixel(640, 360)), 64);
    link().setMirrorCamera(true);
    link().setCurrentImage(halves(640, 480));
    link().fireTimer();
    ASSERT_TRUE(sim.queue->takeFrame());
    EXPECT_EQ(sim.queue->lastFrame().pixel(1279, 360), qRgb(255, 0, 0));
    EXPECT_EQ(sim.queue->lastFrame().pixel(0, 360), qRgb(0, 0, 255));
    EXPECT_GT(sim.queue->lastPresentationTimeNs(), 0);

    link().setMirrorCamera(false);
    QImage stripes(1920, 1080, QImage::Format_RGB32);
    for (int x = 0; x < stripes.width(); ++x)
        for (int y = 0; y < stripes.height(); ++y)
            stripes.setPixel(x, y, x % 2 ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
    QImage fullSize = stripes.copy(0, 0, 1280, 720);
    for (const QImage &picture : {stripes, fullSize}) {
        link().setCurrentImage(picture);
        link().fireTimer();
        ASSERT_TRUE(sim.queue->takeFrame());
        const QImage sent = sim.queue->lastFrame().convertToFormat(QImage::Format_RGB32);
        int lowest = 255, highest = 0;
        for (int x = 0; x < 1280; ++x)
            lowest = std::min(lowest, qGreen(sent.pixel(x, 360))),
            highest = std::max(highest, qGreen(sent.pixel(x, 360)));
        if (picture.size() == sent.size())
            EXPECT_EQ(sent, picture);
        else
            EXPECT_LE(highest - lowest, 140); // about half the stripes' contrast
    }
}

// Nothing is sent without a reader or a picture; the first frame goes at once, the next
// once the consumer has taken one. A full queue or an empty pool drops the frame with a
// line, and frames flow again once buffers come back.
TEST_F(LinkTest, TheGateAndDroppedFrames)
{
    sim.queueCapacity = 1;
    link().connectVirtualCamera();
    setReader(true);
    link().fireTimer(); // no picture yet
    link().setCurrentImage(solid(Qt::red, 32, 32));
    setReader(false);
    link().fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);
    setReader(true);
    link().fireTimer();
    link().fireTimer(); // the consumer has not taken the first one yet
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);

    // Queue full: reported before any pixel buffer is taken from the pool.
    const auto linesOfATick = [&] {
        ConsoleCapture console;
        link().fireTimer();
        return console.lines();
    };
    sim.queue->alter(); // the consumer reports a change but takes nothing
    EXPECT_EQ(linesOfATick(), QStringList{QStringLiteral("error enqueuing")});

    ASSERT_TRUE(sim.queue->takeFrame()); // the consumer takes it; every buffer is then held
    std::vector<std::shared_ptr<vcam::PixelBuffer>> held;
    while (auto buffer = link().bufferPool()->createPixelBuffer())
        held.push_back(buffer);
    EXPECT_EQ(linesOfATick(), QStringList{QStringLiteral("error getting pixel buffer")});
    EXPECT_EQ(sim.queue->framesEnqueued(), 1);

    held.clear(); // buffers go back to the pool and frames flow again
    sim.queue->alter();
    link().fireTimer();
    EXPECT_EQ(sim.queue->framesEnqueued(), 2);
}

TEST_F(LinkTest, ThePollWritesRandomAndOnlyExactlyScOneOpensTheGate)
{
    link().pollStreamState(); // no source stream yet: nothing asked
    EXPECT_TRUE(sim.justWrites.empty());
    link().connectVirtualCamera();

    // Only an exact "sc=1" opens it; a longer text is no match.
    const std::pair<QString, bool> answers[] = {{"sc=1", true}, {"sc=0", false}, {"sc=1", true}, {"sc=11", false}};
    for (const auto &[answer, wanted] : answers) {
        sim.justAnswer = answer;
        link().pollStreamState();
        EXPECT_EQ(link().needToStream(), wanted) << answer.toStdString();
    }
    EXPECT_EQ(sim.justWrites, std::vector<QString>(std::size(answers), QStringLiteral("random")));

    setReader(true);
    sim.justAnswer.reset(); // the property is gone: the gate stays as it was
    link().pollStreamState();
    EXPECT_TRUE(link().needToStream());
}

// The frame tick every 1/30 s and the poll every 2 s, with time moved by hand: a reader
// is seen at the first poll, then each tick sends a frame the consumer takes. Starting
// the timers again starts their intervals again; it does not add timers.
TEST_F(LinkTest, TheTickAndThePollKeepTheirIntervals)
{
    vcam::VirtualCameraLink timed(&sim, env.clock);
    timed.connectVirtualCamera();
    timed.setCurrentImage(solid(Qt::red, 32, 32));
    sim.justAnswer = QStringLiteral("sc=1");
    timed.startTimers();
    env.clock.advance(1.5);
    timed.startTimers();
    EXPECT_EQ(env.clock.runningTimers(std::chrono::milliseconds(33)), 1);
    EXPECT_EQ(env.clock.runningTimers(std::chrono::milliseconds(2000)), 1);

    env.clock.advance(1.875); // the first poll is 2 s after the second start
    EXPECT_TRUE(sim.justWrites.empty());
    EXPECT_EQ(sim.queue->framesEnqueued(), 0);
    env.clock.advance(0.125);
    EXPECT_EQ(sim.justWrites.size(), 1u);
    for (int tick = 0; tick < 60; ++tick) { // one tick in each step, the consumer keeping up
        env.clock.advance(0.033);
        sim.queue->takeFrame();
    }
    EXPECT_EQ(sim.queue->framesEnqueued(), 60);
    EXPECT_EQ(sim.justWrites.size(), 1u) << "the next poll is 2 s after the first";
    env.clock.advance(0.05);
    EXPECT_EQ(sim.justWrites.size(), 2u);
}

// The whole start-up with a real test camera and a reader: the preview shows the frames
// sent and its spinner goes; a second start-up replaces the timers.
TEST_F(LinkTest, StartUpStreamsTheCameraIntoThePreview)
{
    ConsoleCapture console; // keeps the link's messages out of the test output
    vc->startVirtualCameraLink();
    auto *caption = vc->findChild<QLabel *>(QStringLiteral("debugCaption"));
    ASSERT_TRUE(preview() && caption && spinner());
    EXPECT_FALSE(caption->isVisible());
    EXPECT_TRUE(spinner()->isAnimating());

    sim.queue->startReader(std::chrono::milliseconds(1));
    link().pollStreamState(); // the 2 s poll, now rather than later
    ASSERT_TRUE(QTest::qWaitFor([&] { return sim.queue->framesTaken() >= 10; }, 8000));
    EXPECT_TRUE(preview()->hasFrame());
    EXPECT_TRUE(spinner()->isHidden());
    EXPECT_TRUE(QTest::qWaitFor([&] { return caption->text().contains(QStringLiteral("initSink started")); }, 1000));
}

TEST_F(LinkTest, ThePlaceholderCentresItsSpinnerAndStaysWhenThereIsNoPreview)
{
    window->resize(800, 600);
    window->show();
    auto *box = vc->findChild<QFrame *>(QStringLiteral("boxPreview"));
    ASSERT_TRUE(box && spinner());
    QLabel *label = nullptr;
    for (QLabel *candidate : box->findChildren<QLabel *>())
        if (candidate->text() == QStringLiteral("Connecting to camera…"))
            label = candidate;
    ASSERT_TRUE(label);
    EXPECT_TRUE(label->isVisible());
    EXPECT_NEAR(spinner()->geometry().center().x(), box->rect().center().x(), 1);

    // A camera whose input cannot be opened, or no camera at all: no preview, a French
    // line, and the placeholder stays.
    sim.captureInputFailure = QStringLiteral("The device node /dev/video10 does not exist.");
    ConsoleCapture console;
    vc->showVirtualCameraPreview();
    sim.devices.clear();
    vc->showVirtualCameraPreview();
    EXPECT_EQ(console.lines(),
              (QStringList{QStringLiteral("Erreur lors de la configuration de la caméra virtuelle : "
                                          "The device node /dev/video10 does not exist."),
                           QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée.")}));
    EXPECT_EQ(preview(), nullptr);
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
    vcam::VirtualCameraLink &link = vc->link();
    const auto spinner = [&] { return vc->findChild<Spinner *>(); };
    const auto fed = [&] {
        link.propertyTimer();
        const int taken = device->framesTaken();
        const auto flowing = [&] {
            link.fireTimer();
            return device->framesTaken() >= taken + 3;
        };
        return link.needToStream() && QTest::qWaitFor(flowing, 5000) && vc->findChild<LoopbackPreview *>()
            && spinner()->isHidden();
    };
    link.connectVirtualCamera();
    vc->showVirtualCameraPreview();
    link.setCurrentImage(QImage(64, 48, QImage::Format_RGB32));
    ASSERT_TRUE(fed());

    QDir(machine.path("sys/class/video4linux/video10")).removeRecursively();
    device->setWriteError(ENODEV);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            link.fireTimer();
            return link.sinkQueue()->isLost();
        },
        5000));
    const qsizetype before = console.lines().size();
    for (int poll = 0; poll < 3; ++poll)
        link.propertyTimer();
    EXPECT_EQ(console.lines().mid(before),
              QStringList{QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée.")});
    EXPECT_FALSE(link.needToStream());
    EXPECT_EQ(vc->findChild<LoopbackPreview *>(), nullptr);
    EXPECT_TRUE(spinner()->isVisibleTo(vc) && spinner()->isAnimating());

    machine.addDevice(10, "Vistrel", true);
    device->setWriteError(0);
    EXPECT_TRUE(fed());
}

} // namespace
} // namespace vistrel
