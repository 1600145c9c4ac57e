#pragma once
#include "camera/CameraDevice.h"

#include <QImage>
#include <QObject>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

typedef struct _GstSample GstSample;

namespace vistrel::camera {

class CaptureSession;
class DeviceDiscovery;
class FrameGate;
class VideoDataOutput;

// The real camera as a source of pictures: the camera list, the capture session of
// the chosen camera, and the intake that turns its frames into pictures.
//
// Threads: the main thread calls every function and receives pictureTaken. Frames
// arrive on the capture pipeline's streaming thread, where `held` and `streaming` are
// asked for each one; they must be safe to call there.
class CameraSource : public QObject
{
    Q_OBJECT
public:
    // Pictures come at the camera's size, but never larger than `largestPicture`.
    // `held`: the picture is held (frozen, or a movie plays), so frames are dropped.
    // `streaming`: someone reads the virtual camera, so every frame becomes a picture;
    // otherwise only a standby picture twice a second, kept fresh for a Freeze or a
    // reader that comes.
    CameraSource(DeviceDiscovery *discovery, QSize largestPicture, std::function<bool()> held,
                 std::function<bool()> streaming, QObject *parent = nullptr);
    ~CameraSource() override;

    // Lists the cameras, never the virtual camera this program publishes, and keeps the
    // list for choosing by index.
    const std::vector<CameraDevice> &discoverCameras();
    const std::vector<CameraDevice> &videoDevices() const { return m_videoDevices; }
    const std::optional<CameraDevice> &selectedDevice() const { return m_selectedDevice; }

    // Captures from the first video device the system lists (the virtual camera too).
    void setupDefaultCapture();
    // Captures from the listed camera at `index` without a word (the start-up choice).
    void useCamera(std::size_t index);
    // The user's choice: a console line names the camera, or says the index is outside
    // the list (nothing changes then).
    void cameraSelected(int index);
    // Captures from `device` in a new session; the previous one winds down on its own.
    void configureCapture(const CameraDevice &device);
    // Starts the session again when it is not running.
    void resumeCapture();
    // Lets the camera in use go (its device is closed, its light goes off) and keeps
    // which one it was; reopenCamera() captures from it again. Nothing happens without a
    // camera in use, or when it is already released.
    void releaseCamera();
    void reopenCamera();
    bool isCameraReleased() const { return m_released; }

    const std::shared_ptr<CaptureSession> &captureSession() const { return m_captureSession; }

Q_SIGNALS:
    // A new picture from the camera.
    void pictureTaken(const QImage &picture);
    // After another camera was picked (selectedDevice).
    void cameraChanged();

private:
    void startCaptureSession(const CameraDevice &device, const QString &errorPrefix);
    void attachCameraFrames(VideoDataOutput &output);
    // Streaming thread.
    bool wantsCameraPicture();
    void processCameraFrame(GstSample *sample);

    DeviceDiscovery *const m_discovery;
    const QSize m_largestPicture;
    const std::function<bool()> m_held;
    const std::function<bool()> m_streaming;
    std::vector<CameraDevice> m_videoDevices;
    std::optional<CameraDevice> m_selectedDevice;
    // The camera the current session captures from, and whether it was let go.
    std::optional<CameraDevice> m_capturedDevice;
    bool m_released = false;
    std::shared_ptr<CaptureSession> m_captureSession;
    // While nobody reads the virtual camera, a camera picture is taken this often.
    static constexpr std::chrono::milliseconds kStandbyPictureInterval{500};
    std::atomic<std::chrono::steady_clock::rep> m_nextStandbyPicture{0};
    // Declared last so it closes first: no frame reaches a source being destroyed.
    std::shared_ptr<FrameGate> m_cameraFrames;
};

} // namespace vistrel::camera
