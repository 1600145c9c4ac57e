#include "camera/VideoFileSource.h"

#include "camera/MoviePlayer.h"
#include "camera/SampleImage.h"
#include "core/Platform.h"
#include "core/Timers.h"

#include <QFileInfo>
#include <QUrl>
#include <gst/gst.h>

namespace vistrel::camera {

// Only a regular file is handed to GStreamer: opening a named pipe waits for a writer,
// and a device or a folder is never a movie.
QString VideoFileSource::notAMovieFile(const QString &path)
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

VideoFileSource::VideoFileSource(AlertPresenter *alerts, Timers &timers, QObject *parent)
    : QObject(parent), m_alerts(alerts), m_timers(timers)
{}

VideoFileSource::~VideoFileSource() = default;

bool VideoFileSource::acceptsFile(const QString &path)
{
    const QString problem = notAMovieFile(path);
    if (!problem.isEmpty())
        showMovieAlert(QFileInfo(path).fileName(), problem);
    return problem.isEmpty();
}

void VideoFileSource::showMovieAlert(const QString &fileName, const QString &reason)
{
    if (m_alerts)
        m_alerts->runModal({QStringLiteral("Movie Cannot Be Played"),
                            QStringLiteral("\u201c%1\u201d cannot be played: %2").arg(fileName, reason),
                            AlertStyle::Warning,
                            {QStringLiteral("OK")}});
}

void VideoFileSource::playVideo(const QString &filePath)
{
    m_isPlayingVideo.store(true);

    m_playerItem = std::make_shared<PlayerItem>(filePath);
    m_itemVideoOutput = std::make_shared<PlayerItemVideoOutput>();
    m_playerItem->addOutput(m_itemVideoOutput);

    // A player still playing the previous file is released as it is.
    m_player = std::make_shared<MoviePlayer>(m_playerItem);
    m_player->play();

    // The first file starts the 24 Hz tick for the rest of the program's life; it does
    // nothing while no file plays. Later files use the same tick.
    if (!m_videoFrameTimer) {
        m_videoFrameTimer = m_timers.repeating(std::chrono::milliseconds(qRound(1000.0 / 24)), Qt::PreciseTimer,
                                               [this] { updateVideoFrame(); });
        m_videoFrameTimer->start();
    }

    m_player->setDidPlayToEndHandler([this] { playerItemDidReachEnd(); });
    Q_EMIT playingChanged(true);
}

void VideoFileSource::updateVideoFrame()
{
    if (!m_itemVideoOutput || !m_isPlayingVideo.load() || !m_player)
        return;
    const std::shared_ptr<PlayerItem> item = m_player->currentItem();
    if (!item)
        return;
    const std::int64_t now = m_player->currentTime();

    if (std::shared_ptr<GstSample> frame = m_itemVideoOutput->copyPixelBuffer()) {
        QImage picture = imageFromSample(frame.get());
        if (!picture.isNull()) {
            QMetaObject::invokeMethod(
                this, [this, picture = std::move(picture)] { Q_EMIT pictureReady(picture); }, Qt::QueuedConnection);
        }
        return;
    }

    const bool failed = item->status() == PlayerItemStatus::Failed;
    const bool stalledAtEnd = item->duration() >= 0 && now >= item->duration() && m_player->rate() == 0.0;
    if (failed || stalledAtEnd) {
        QMetaObject::invokeMethod(
            this,
            [this, item, failed] {
                // Later ticks may have queued the same stop: only the first one says why.
                const bool stillPlaying = m_playerItem == item;
                stopVideoPlayback();
                if (failed && stillPlaying)
                    showMovieAlert(QUrl(item->uri()).fileName(),
                                   item->failureReason() + QStringLiteral("\nThe camera picture is shown again."));
            },
            Qt::QueuedConnection);
    }
}

void VideoFileSource::playerItemDidReachEnd()
{
    reversePlaybackAtEnd();
}

void VideoFileSource::reversePlaybackAtEnd()
{
    if (m_player)
        m_player->setRate(m_endReached ? 1.0 : -1.0);
    m_endReached = !m_endReached;
}

void VideoFileSource::stopVideoPlayback()
{
    m_isPlayingVideo.store(false);

    if (m_player) {
        m_player->pause();
        m_player->seekToZero();
        if (m_player->currentItem()) {
            m_player->currentItem()->removeOutput(m_itemVideoOutput);
            m_player->replaceCurrentItem(nullptr);
            m_playerItem.reset();
            m_itemVideoOutput.reset();
        }
    }
    m_player.reset();
    Q_EMIT playingChanged(false);
}

} // namespace vistrel::camera
