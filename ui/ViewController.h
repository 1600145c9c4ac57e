#pragma once
#include "core/Services.h"

#include <QPointer>
#include <QWidget>
#include <chrono>
#include <memory>

class QComboBox;
class QFrame;
class QLabel;
class QPushButton;

namespace vistrel {
namespace camera {
class CameraRelease;
class CameraSource;
class FreezeEffect;
class VideoFileSource;
} // namespace camera
namespace vcam {
class PixelBuffer;
class VirtualCameraLink;
} // namespace vcam
class ExtensionRequests;
class LoopbackPreview;
class Spinner;

// The main window's content. It owns the parts behind the window's controls (the camera
// source, Freeze and Stutter, the movie source, the virtual-camera link and the camera
// extension's requests) and wires them to the controls, the preview and each other: the
// picture of the source that plays becomes the link's current picture.
//
// Threads: the main thread, except showMessage (any thread).
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
    // text appended to the hidden debug caption.
    void showMessage(const QString &text);

    // The start-up once onboarding is done: the default capture, the link and its
    // timers, the camera chooser, the activation request, the preview, and a warning
    // when the extension is installed but not active.
    void startVirtualCameraLink();
    void setupCameraControls();
    void showConnectingPlaceholder();
    void showVirtualCameraPreview();
    void playVideo(const QString &filePath);
    // What Open Movie… does with the chosen file: plays it in place of the camera or the
    // movie before, or refuses it with an alert and changes nothing (answers false).
    bool openMovie(const QString &filePath);
    void stopVideoPlayback(QObject *sender);
    // What picking the chooser's entry at `index` does.
    void selectCamera(int index);

    // The parts, each with its own interface.
    camera::CameraSource &cameraSource() { return *m_camera; }
    camera::FreezeEffect &effects() { return *m_effects; }
    camera::VideoFileSource &videoFileSource() { return *m_movie; }
    vcam::VirtualCameraLink &link() { return *m_link; }
    ExtensionRequests &extensionRequests() { return *m_requests; }

    // Whether the freeze button reads "Unfreeze": Freeze holds the picture as far as the
    // window tells the user. Unlike effects().isFrozen(), the shutter's switches leave it
    // alone, and stopping the shutter does not clear it.
    bool isFreezeHeld() const { return m_freezeHeld; }

public Q_SLOTS:
    void toggleFreeze();
    void toggleShutter();
    void cameraSelected(QObject *sender = nullptr);
    void openVideoFile(QObject *sender = nullptr);
    void stopVideo(QObject *sender = nullptr);
    void mainWindowShown();
    void toggleWindow();
    void closeApp(QObject *sender = nullptr);
    void activate(QObject *sender = nullptr);
    void deactivate(QObject *sender = nullptr);

Q_SIGNALS:
    // Freeze, Stutter, the movie, the picked camera or whether someone reads the virtual
    // camera changed; the shutter's switches each count.
    void stateChanged();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    // How long the camera stays on after the window was hidden or the last reader left.
    static constexpr std::chrono::seconds kCameraReleaseGrace{5};

    void showPicture(const QImage &picture);
    void showSentFrame(const std::shared_ptr<const vcam::PixelBuffer> &frame);
    void showVirtualCameraGone();

    Services m_services;

    // Outlets.
    QPointer<QComboBox> m_popUpButton;
    QPointer<QPushButton> m_shutterButton;
    QPointer<QPushButton> m_freezeButton;
    QPointer<QLabel> m_statusLabel;
    QPointer<QLabel> m_statusIndicator;
    QPointer<QWidget> m_videoPreviewView;
    QPointer<QFrame> m_boxPreview;
    QPointer<QPushButton> m_stopVideoBtn;

    QPointer<QWidget> m_window;
    QPointer<QLabel> m_debugCaption;
    QPointer<Spinner> m_previewSpinner;
    QPointer<LoopbackPreview> m_virtualCameraView;

    // What the freeze button's title shows; see isFreezeHeld.
    bool m_freezeHeld = false;
    std::unique_ptr<camera::FreezeEffect> m_effects;
    std::unique_ptr<camera::VideoFileSource> m_movie;
    std::unique_ptr<vcam::VirtualCameraLink> m_link;
    std::unique_ptr<ExtensionRequests> m_requests;
    std::unique_ptr<camera::CameraRelease> m_cameraRelease;
    // Declared last so it goes first: its streaming thread asks the parts above.
    std::unique_ptr<camera::CameraSource> m_camera;
};

} // namespace vistrel
