// The movie-file source: a file plays forwards, then backwards, in a loop, in place of
// the camera's pictures.
#include "camera/ViewController.h"

#include "app/Platform.h"
#include "camera/CaptureSession.h"
#include "camera/FrameGate.h"
#include "camera/MoviePlayer.h"
#include "camera/SampleImage.h"

#include <QPushButton>
#include <QTimer>
#include <gst/gst.h>

namespace vistrel {

void ViewController::openVideoFile(QObject *)
{
    if (!m_services.fileDialogs)
        return;
    QPointer<ViewController> self(this);
    m_services.fileDialogs->chooseMovie(this, [self](std::optional<QString> file) {
        if (!self || !file || file->isEmpty())
            return;
        if (self->captureSession && !self->captureSession->isRunning())
            self->captureSession->startRunning();
        self->playVideo(*file);
        self->stopVideoBtn->setEnabled(true);
    });
}

void ViewController::playVideo(const QString &filePath)
{
    isPlayingVideo.store(true);

    playerItem = std::make_shared<camera::PlayerItem>(filePath);
    itemVideoOutput = std::make_shared<camera::PlayerItemVideoOutput>();
    playerItem->addOutput(itemVideoOutput);

    // A player still playing the previous file is released as it is.
    player = std::make_shared<camera::MoviePlayer>(playerItem);
    player->play();

    // Each file adds one 24 Hz tick for the rest of the program's life; it does nothing
    // while no file plays.
    auto *frameTimer = new QTimer(this);
    frameTimer->setTimerType(Qt::PreciseTimer);
    frameTimer->setInterval(qRound(1000.0 / 24)); // 1/24 s to the millisecond
    connect(frameTimer, &QTimer::timeout, this, &ViewController::updateVideoFrame);
    frameTimer->start();

    player->setDidPlayToEndHandler([this] { playerItemDidReachEnd(); });
}

void ViewController::updateVideoFrame()
{
    if (!itemVideoOutput || !isPlayingVideo.load() || !player)
        return;
    const std::shared_ptr<camera::PlayerItem> item = player->currentItem();
    if (!item)
        return;
    const std::int64_t now = player->currentTime();

    if (std::shared_ptr<GstSample> frame = itemVideoOutput->copyPixelBuffer()) {
        QImage picture = camera::imageFromSample(frame.get());
        if (!picture.isNull()) {
            QMetaObject::invokeMethod(
                this, [this, picture = std::move(picture)] { currentImage = picture; }, Qt::QueuedConnection);
        }
        return;
    }

    const bool failed = item->status() == camera::PlayerItemStatus::Failed;
    const bool stalledAtEnd = item->duration() >= 0 && now >= item->duration() && player->rate() == 0.0;
    if (failed || stalledAtEnd) {
        QMetaObject::invokeMethod(
            this,
            [this] {
                QPushButton sender;
                stopVideoPlayback(&sender);
            },
            Qt::QueuedConnection);
    }
}

void ViewController::playerItemDidReachEnd() { reversePlaybackAtEnd(); }

// Registered by nothing: the end of a file turns the direction instead (see
// reversePlaybackAtEnd). Kept as the alternative loop that restarts from the top.
void ViewController::videoDidEnd()
{
    if (!player)
        return;
    player->seekToZero();
    player->play();
}

void ViewController::reversePlaybackAtEnd()
{
    if (player)
        player->setRate(endReached ? 1.0 : -1.0);
    endReached = !endReached;
}

void ViewController::stopVideo(QObject *sender) { stopVideoPlayback(sender); }

void ViewController::stopVideoPlayback(QObject *)
{
    isPlayingVideo.store(false);

    if (player)
        player->pause();
    if (player) {
        player->seekToZero();
        if (player->currentItem()) {
            player->currentItem()->removeOutput(itemVideoOutput);
            player->replaceCurrentItem(nullptr);
            playerItem.reset();
            itemVideoOutput.reset();
        }
    }

    player.reset();
    playerLayer = nullptr;

    // The camera-side reset below belongs to a movie view that this window never has:
    // videoView is never assigned, so freeze and shutter survive a stop as they were.
    if (videoView) {
        if (captureSession)
            captureSession->startRunning();
        if (videoOutput && m_cameraFrames)
            videoOutput->setSampleBufferDelegate(m_cameraFrames->sender());
        isFrozen.store(false);
        freezeButton->setText(QStringLiteral("Freeze"));
        shutterButton->setText(QStringLiteral("Stutter"));
        if (freezeTimer) {
            freezeTimer->stop();
            freezeTimer->deleteLater();
        }
        isShutterActive = false;
    }
}

} // namespace vistrel
