// The movie-file source: a file plays forwards, then backwards, in a loop, in place of
// the camera's pictures.
#include "camera/ViewController.h"

#include "core/Platform.h"
#include "camera/CaptureSession.h"
#include "camera/FrameGate.h"
#include "camera/MoviePlayer.h"
#include "camera/SampleImage.h"

#include <QFileInfo>
#include <QPushButton>
#include <QTimer>
#include <QUrl>
#include <gst/gst.h>

namespace vistrel {
namespace {

// Why the chosen path cannot be a movie, or an empty string. Only a regular file is
// handed to GStreamer: opening a named pipe waits for a writer, and a device or a
// folder is never a movie.
QString notAMovieFile(const QString &path)
{
    const QFileInfo file(path);
    if (!file.exists())
        return QStringLiteral("it does not exist.");
    if (file.isDir())
        return QStringLiteral("it is a folder.");
    if (!file.isFile())
        return QStringLiteral("it is a named pipe, a socket or a device, not a file.");
    return {};
}

} // namespace

void ViewController::showMovieAlert(const QString &fileName, const QString &reason)
{
    if (m_services.alerts)
        m_services.alerts->runModal({QStringLiteral("Movie Cannot Be Played"),
                                     QStringLiteral("\u201c%1\u201d cannot be played: %2").arg(fileName, reason), AlertStyle::Warning,
                                     {QStringLiteral("OK")}});
}

void ViewController::openVideoFile(QObject *)
{
    if (!m_services.fileDialogs)
        return;
    QPointer<ViewController> self(this);
    m_services.fileDialogs->chooseMovie(this, [self](std::optional<QString> file) {
        if (!self || !file || file->isEmpty())
            return;
        // Refused before anything changes: what plays now (camera or movie) goes on.
        if (const QString problem = notAMovieFile(*file); !problem.isEmpty()) {
            self->showMovieAlert(QFileInfo(*file).fileName(), problem);
            return;
        }
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

    // The first file starts the 24 Hz tick for the rest of the program's life; it does
    // nothing while no file plays. Later files use the same tick.
    if (!m_videoFrameTimer) {
        m_videoFrameTimer = new QTimer(this);
        m_videoFrameTimer->setObjectName(QStringLiteral("videoFrameTimer"));
        m_videoFrameTimer->setTimerType(Qt::PreciseTimer);
        m_videoFrameTimer->setInterval(qRound(1000.0 / 24)); // 1/24 s to the millisecond
        connect(m_videoFrameTimer, &QTimer::timeout, this, &ViewController::updateVideoFrame);
        m_videoFrameTimer->start();
    }

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
            [this, item, failed] {
                // Later ticks may have queued the same stop: only the first one says why.
                const bool stillPlaying = playerItem == item;
                QPushButton sender;
                stopVideoPlayback(&sender);
                if (failed && stillPlaying)
                    showMovieAlert(QUrl(item->uri()).fileName(),
                                   item->failureReason() + QStringLiteral("\nThe camera picture is shown again."));
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
