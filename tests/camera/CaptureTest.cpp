// Camera discovery through the real GstDeviceMonitor, selection by index, and the
// capture pipeline's pictures, with the solid-colour test cameras.
#include "ControllerFixture.h"

#include "camera/CaptureSession.h"

#include <QElapsedTimer>

namespace vistrel::test {
namespace {

using CameraCaptureTest = ControllerFixture;

class OnlyVirtualCamera final : public camera::DeviceDiscovery
{
public:
    std::vector<camera::CameraDevice> videoDevices() override { return {{QStringLiteral("Vistrel"), {}, {}}}; }
};

// Every camera but the exact virtual-camera name is listed and the first starts.
// Same-named cameras are told apart by index; choosing the running one again still
// gets a new pipeline; an index outside the list changes nothing.
TEST_F(CameraCaptureTest, ListingAndChoosingByIndex)
{
    ConsoleCapture console;
    startCamera();
    QStringList listed;
    for (const auto &device : vc->videoDevices)
        listed << device.localizedName;
    EXPECT_FALSE(listed.contains(TestCameraProvider::kVirtualCameraName));
    EXPECT_TRUE(listed.contains(TestCameraProvider::kSuffixedName));
    EXPECT_EQ(listed.count(TestCameraProvider::kStudioCameraName), 2);
    ASSERT_EQ(vc->popUpButton->count(), listed.size());
    for (int i = 0; i < listed.size(); ++i)
        EXPECT_EQ(vc->popUpButton->itemText(i), listed[i]);
    EXPECT_EQ(vc->popUpButton->currentIndex(), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->currentImage.has_value(); }, 5000));
    const qsizetype startUpLines = console.lines().size();
    EXPECT_FALSE(console.lines().contains(QStringLiteral("Aucune caméra détectée")));

    const int red = indexOf(TestCameraProvider::kStudioCameraName, 0);
    const int blue = indexOf(TestCameraProvider::kStudioCameraName, 1);
    ASSERT_GE(blue, 0);
    choose(blue);
    EXPECT_TRUE(waitForColour(QStringLiteral("blue")));
    choose(red);
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));
    auto session = vc->captureSession;
    choose(red);
    EXPECT_NE(vc->captureSession, session);
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->captureSession->isRunning(); }, 2000));

    session = vc->captureSession;
    vc->popUpButton->addItem(QStringLiteral("not a camera"));
    choose(vc->popUpButton->count() - 1);
    choose(-1);
    EXPECT_EQ(vc->captureSession, session);
    const QString line = QStringLiteral("Caméra sélectionnée : Studio Camera");
    const QString error = QStringLiteral("Erreur : Index sélectionné hors limites");
    EXPECT_EQ(console.lines().mid(startUpLines), (QStringList{line, line, line, error, error}));
}

TEST_F(CameraCaptureTest, OnlyTheVirtualCameraMeansNoCameraAndAnUntouchedChooser)
{
    OnlyVirtualCamera onlyVirtual;
    env.services.cameraDiscovery = &onlyVirtual;
    ViewController controller(env.services);
    auto *chooser = new QComboBox(&controller);
    chooser->addItems({QStringLiteral("from the interface file")});
    controller.popUpButton = chooser;
    controller.freezeButton = new QPushButton(&controller);
    controller.shutterButton = new QPushButton(&controller);

    ConsoleCapture console;
    controller.setupCameraControls();
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Aucune caméra détectée")});
    EXPECT_EQ(chooser->count(), 1);
}

// Pictures come at the camera's size; a device that fails reports GStreamer's error
// and leaves the last picture.
TEST_F(CameraCaptureTest, PicturesAtTheCameraSizeAndAFailingDeviceKeepsTheLastOne)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kSuffixedName));
    ASSERT_TRUE(waitForColour(QStringLiteral("green")));
    EXPECT_EQ(vc->currentImage->size(), QSize(160, 120));
    EXPECT_EQ(vc->currentImage->format(), QImage::Format_RGB32);

    ConsoleCapture console;
    choose(indexOf(TestCameraProvider::kUnpluggedName));
    QTest::qWait(300);
    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 2) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(lines[0], QStringLiteral("Caméra sélectionnée : Unplugged Camera"));
    EXPECT_TRUE(lines[1].startsWith(QStringLiteral("Erreur lors de la configuration de la capture vidéo : ")));
    EXPECT_TRUE(lines[1].contains(QStringLiteral("/dev/vistrel-unplugged-camera"))) << lines[1].toStdString();
    EXPECT_EQ(pictureColour(), QStringLiteral("green"));
}

// How many new pictures reach currentImage within `ms`.
int picturesWithin(ViewController &vc, int ms)
{
    int changes = 0;
    qint64 last = vc.currentImage ? vc.currentImage->cacheKey() : 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms) {
        QTest::qWait(5);
        const qint64 key = vc.currentImage ? vc.currentImage->cacheKey() : 0;
        changes += key != last;
        last = key;
    }
    return changes;
}

// Without a reader only a standby picture is taken, every frame once someone reads;
// none while a movie plays (while frozen: left to the VM lab, frames byte-identical).
TEST_F(CameraCaptureTest, WhichFramesBecomePictures)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kStudioCameraName, 1));
    ASSERT_TRUE(waitForColour(QStringLiteral("blue")));

    ASSERT_FALSE(vc->needToStream);
    const int standby = picturesWithin(*vc, 2000); // a 30 fps camera: about two a second
    EXPECT_GE(standby, 2);
    EXPECT_LE(standby, 6);
    vc->needToStream = true;
    EXPECT_GE(picturesWithin(*vc, 1000), 12);

    vc->isPlayingVideo = true;
    QTest::qWait(100);
    EXPECT_EQ(picturesWithin(*vc, 300), 0);
    vc->isPlayingVideo = false;
    EXPECT_GE(picturesWithin(*vc, 300), 1);
}

} // namespace
} // namespace vistrel::test
