#pragma once
#include "core/Services.h"
#include "camera/CameraDevice.h"

#include <QImage>
#include <QPointer>
#include <QString>
#include <QVariantMap>
#include <QWidget>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class QComboBox;
class QFrame;
class QLabel;
class QPushButton;
class QSystemTrayIcon;
class QTimer;
typedef struct _GstSample GstSample;

namespace vistrel {
namespace camera {
class CaptureSession;
class VideoDataOutput;
class MoviePlayer;
class PlayerItem;
class PlayerItemVideoOutput;
class FrameGate;
} // namespace camera
class Spinner;
namespace vcam {
class PixelBufferPool;
class SimpleQueue;
struct VideoFormatDescription;
using ObjectID = std::uint32_t;
} // namespace vcam
namespace sysext {
struct ExtensionRequestError;
enum class RequestKind;
}

// The one controller of the main window. It owns every piece of per-window state:
// the capture session and camera list, freeze and shutter, the movie player, and the
// virtual-camera link. Its behaviour is spread over ViewController*.cpp by topic.
class ViewController : public QWidget
{
    Q_OBJECT
public:
    explicit ViewController(const Services &services, QWidget *parent = nullptr);
    ~ViewController() override;

    // Finds the eight outlets among the children loaded from the interface file.
    // A missing outlet stops the program.
    void bindOutlets();
    void viewDidLoad();

    // The controller's message line: "showMessage <text>" on standard output, and the
    // text appended to debugCaption on the main thread. Callable from any thread.
    void showMessage(const QString &text);

    // Camera discovery and capture.
    std::vector<camera::CameraDevice> discoverCameras();
    void setupCameraControls();
    void setupDefaultCapture();
    void configureCapture(const camera::CameraDevice &device);
    // Builds the capture session just made for `device` and starts it; failures are
    // console lines behind `errorPrefix`. The output is also stored in `keptOutput`.
    void startCaptureSession(const camera::CameraDevice &device, const QString &errorPrefix,
                             std::shared_ptr<camera::VideoDataOutput> *keptOutput);
    // Runs on the capture pipeline's streaming thread, once per frame.
    void processCameraFrame(GstSample *sample);
    void attachCameraFrames(camera::VideoDataOutput &output);
    bool wantsCameraPicture();

    // Movie source.
    void playVideo(const QString &filePath);
    void stopVideoPlayback(QObject *sender);
    void reversePlaybackAtEnd();
    // Tells the user why a movie was refused or stopped: "“name” cannot be played: reason"
    // in a modal alert.
    void showMovieAlert(const QString &fileName, const QString &reason);

    // Virtual camera link.
    void startVirtualCameraLink();
    void connectVirtualCamera();
    void showConnectingPlaceholder();
    void showVirtualCameraPreview();
    void initSink(vcam::ObjectID device, vcam::ObjectID stream);
    void sinkQueueAltered();
    void enqueueFrame(vcam::SimpleQueue &queue, const QImage &image);
    void pollStreamState();

    // Camera extension.
    void requestActivation();
    void requestDeactivation();
    void requestExtensionChange(sysext::RequestKind kind);
    void warnIfExtensionNotActivated();

public Q_SLOTS:
    void toggleFreeze();
    void toggleShutter();
    void freezeEffect();
    void cameraSelected(QObject *sender = nullptr);
    void openVideoFile(QObject *sender = nullptr);
    void stopVideo(QObject *sender = nullptr);
    void updateVideoFrame();
    void playerItemDidReachEnd();
    void videoDidEnd();
    void fireTimer();
    void propertyTimer();
    void mainWindowShown();
    void toggleWindow();
    void closeApp(QObject *sender = nullptr);
    void activate(QObject *sender = nullptr);
    void deactivate(QObject *sender = nullptr);

public:
    // Answers to this controller's extension requests (always on the main thread).
    int actionForReplacingExtension(const QString &existingVersion, const QString &newVersion);
    void requestNeedsUserApproval();
    void requestDidFinishWithResult(int result);
    void requestDidFailWithError(const sysext::ExtensionRequestError &error);

    // Fields, in declaration order.
    std::unique_ptr<QLabel> debugCaption;
    QLabel *needToStreamCaption = nullptr;
    std::atomic<bool> needToStream{false}; // also read on the streaming thread
    bool mirrorCamera = false;
    std::optional<QImage> image;
    bool activating = false;
    std::atomic<bool> readyToEnqueue{false};
    bool enqueued = false;
    std::shared_ptr<vcam::VideoFormatDescription> _videoDescription;
    std::shared_ptr<vcam::PixelBufferPool> _bufferPool;
    std::optional<QVariantMap> _bufferAuxAttributes;
    std::int32_t _whiteStripeStartRow = 0;
    bool _whiteStripeIsAscending = false;
    bool overlayMessage = false;
    std::int64_t sequenceNumber = 0;
    QPointer<QWidget> window;
    QPointer<QTimer> timer;
    QPointer<QTimer> propTimer;
    std::shared_ptr<camera::CaptureSession> captureSession;
    std::shared_ptr<camera::VideoDataOutput> videoOutput;
    std::optional<QImage> currentImage;
    QWidget *videoPreviewLayer = nullptr;
    std::atomic<bool> isFrozen{false};
    std::vector<camera::CameraDevice> videoDevices;
    QPointer<QComboBox> popUpButton;
    std::optional<camera::CameraDevice> selectedDevice;
    QPointer<QTimer> freezeTimer;
    QPointer<QPushButton> shutterButton;
    bool isShutterActive = false;
    std::atomic<std::shared_ptr<GstSample>> lastCapturedImage;
    QString videoQueue;
    QPointer<QPushButton> freezeButton;
    std::shared_ptr<camera::MoviePlayer> player;
    QSystemTrayIcon *statusItem = nullptr;
    QWidget *playerLayer = nullptr;
    std::shared_ptr<camera::PlayerItemVideoOutput> playerItemOutput;
    std::shared_ptr<camera::PlayerItemVideoOutput> itemVideoOutput;
    std::atomic<bool> isPlayingVideo{false};
    std::shared_ptr<camera::PlayerItem> playerItem;
    QPointer<QLabel> statusLabel;
    QPointer<QLabel> statusIndicator;
    QPointer<QWidget> videoPreviewView;
    QWidget *virtualCameraView = nullptr;
    bool endReached = false;
    QPointer<QFrame> boxPreview;
    QPointer<QPushButton> stopVideoBtn;
    QPointer<Spinner> previewSpinner;
    QWidget *videoView = nullptr;
    QWidget *webcamView = nullptr;
    std::optional<vcam::ObjectID> sourceStream;
    std::optional<vcam::ObjectID> sinkStream;
    std::shared_ptr<vcam::SimpleQueue> sinkQueue;

    const Services &services() const { return m_services; }

private:
    Services m_services;
    // The movie frame tick, made by the first file played.
    QPointer<QTimer> m_videoFrameTimer;
    // Declared last so it is released first: no camera frame reaches a controller
    // whose fields are being destroyed.
    std::shared_ptr<camera::FrameGate> m_cameraFrames;
    // While nobody reads the virtual camera, a camera picture is taken this often.
    static constexpr std::chrono::milliseconds kStandbyPictureInterval{500};
    std::atomic<std::chrono::steady_clock::rep> m_nextStandbyPicture{0};
};

} // namespace vistrel
