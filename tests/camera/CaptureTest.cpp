// Camera discovery through the real GstDeviceMonitor, selection by index, and the
// capture pipeline's pictures, with the solid-colour test cameras.
#include "ControllerFixture.h"

#include "camera/CaptureSession.h"

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
    for (const auto &device : vc->cameraSource().videoDevices())
        listed << device.localizedName;
    EXPECT_FALSE(listed.contains(TestCameraProvider::kVirtualCameraName));
    EXPECT_TRUE(listed.contains(TestCameraProvider::kSuffixedName));
    EXPECT_EQ(listed.count(TestCameraProvider::kStudioCameraName), 2);
    ASSERT_EQ(chooser()->count(), listed.size());
    for (int i = 0; i < listed.size(); ++i)
        EXPECT_EQ(chooser()->itemText(i), listed[i]);
    EXPECT_EQ(chooser()->currentIndex(), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return currentImage().has_value(); }, 5000));
    const qsizetype startUpLines = console.lines().size();
    EXPECT_FALSE(console.lines().contains(QStringLiteral("Aucune caméra détectée")));

    const int red = indexOf(TestCameraProvider::kStudioCameraName, 0);
    const int blue = indexOf(TestCameraProvider::kStudioCameraName, 1);
    ASSERT_GE(blue, 0);
    choose(blue);
    EXPECT_TRUE(waitForColour(QStringLiteral("blue")));
    choose(red);
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));
    auto session = vc->cameraSource().captureSession();
    choose(red);
    EXPECT_NE(vc->cameraSource().captureSession(), session);
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->cameraSource().captureSession()->isRunning(); }, 2000));

    session = vc->cameraSource().captureSession();
    chooser()->addItem(QStringLiteral("not a camera"));
    choose(chooser()->count() - 1);
    choose(-1);
    EXPECT_EQ(vc->cameraSource().captureSession(), session);
    const QString line = QStringLiteral("Caméra sélectionnée : Studio Camera");
    const QString error = QStringLiteral("Erreur : Index sélectionné hors limites");
    EXPECT_EQ(console.lines().mid(startUpLines), (QStringList{line, line, line, error, error}));
}

TEST_F(CameraCaptureTest, OnlyTheVirtualCameraMeansNoCameraAndAnUntouchedChooser)
{
    OnlyVirtualCamera onlyVirtual;
    env.services.cameraDiscovery = &onlyVirtual;
    MainWindowController *other =
        instantiateMainInterface(env.services, QStringLiteral(VISTREL_SOURCE_DIR "/resources/Main.ui"));
    ASSERT_NE(other, nullptr);
    std::unique_ptr<QWidget> otherWindow(other->window());
    ViewController &controller = *other->contentViewController();
    auto *otherChooser = controller.findChild<QComboBox *>(QStringLiteral("popUpButton"));
    otherChooser->addItems({QStringLiteral("from the interface file")});

    ConsoleCapture console;
    controller.setupCameraControls();
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Aucune caméra détectée")});
    EXPECT_EQ(otherChooser->count(), 1);
    EXPECT_FALSE(controller.cameraSource().captureSession());
}

// Pictures come at the camera's size; a device that fails reports GStreamer's error
// and leaves the last picture.
TEST_F(CameraCaptureTest, PicturesAtTheCameraSizeAndAFailingDeviceKeepsTheLastOne)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kSuffixedName));
    ASSERT_TRUE(waitForColour(QStringLiteral("green")));
    EXPECT_EQ(currentImage()->size(), QSize(160, 120));
    EXPECT_EQ(currentImage()->format(), QImage::Format_RGB32);

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

// Without a reader only a standby picture is taken, every frame once someone reads;
// none while the picture is held (a movie plays, or it is frozen).
TEST_F(CameraCaptureTest, WhichFramesBecomePictures)
{
    std::atomic<bool> held{false}, streaming{false};
    camera::CameraSource source(
        &discovery, QSize(1280, 720), [&] { return held.load(); }, [&] { return streaming.load(); });
    // Counted, not kept: a picture held on to keeps its buffer from the converter's pool.
    int pictures = 0;
    QObject::connect(&source, &camera::CameraSource::pictureTaken, [&] { ++pictures; });
    const auto picturesWithin = [&](int ms) {
        pictures = 0;
        QTest::qWait(ms); // the test camera's own 30 frames a second set the pace
        return pictures;
    };
    const auto &devices = source.discoverCameras();
    const auto studio = [](const camera::CameraDevice &device) {
        return device.localizedName == TestCameraProvider::kStudioCameraName;
    };
    const auto first = std::find_if(devices.begin(), devices.end(), studio);
    ASSERT_NE(first, devices.end());
    source.useCamera(static_cast<std::size_t>(std::find_if(first + 1, devices.end(), studio) - devices.begin()));
    ASSERT_TRUE(QTest::qWaitFor([&] { return pictures > 0; }, 5000));

    const int standby = picturesWithin(2000); // about two a second
    EXPECT_GE(standby, 2);
    EXPECT_LE(standby, 6);
    streaming = true;
    EXPECT_GE(picturesWithin(1000), 12);
    held = true;
    QTest::qWait(100);
    EXPECT_EQ(picturesWithin(300), 0);
    held = false;
    EXPECT_GE(picturesWithin(300), 1);
}

} // namespace
} // namespace vistrel::test
