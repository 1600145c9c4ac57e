#pragma once
#include <QImage>
#include <QObject>
#include <QString>
#include <atomic>
#include <memory>

namespace vistrel {
class AlertPresenter;
class RepeatingTimer;
class Timers;
} // namespace vistrel

namespace vistrel::camera {

class MoviePlayer;
class PlayerItem;
class PlayerItemVideoOutput;

// A movie file as the source of pictures, in place of the camera: it plays forwards,
// then backwards, in a loop. One 24 Hz tick, started by the first file, pulls the
// pictures; a file that fails or stalls at its end stops, and a failure is told in an
// alert.
//
// Threads: the main thread calls every function and receives pictureReady, except
// isPlayingVideo(), which the camera's streaming thread also reads.
class VideoFileSource : public QObject
{
    Q_OBJECT
public:
    VideoFileSource(AlertPresenter *alerts, Timers &timers, QObject *parent = nullptr);
    ~VideoFileSource() override;

    // Whether `path` is a file that may be handed to the player. When it is not, an alert
    // says why and nothing changes: what plays now (camera or movie) goes on.
    bool acceptsFile(const QString &path);
    // Why `path` cannot be handed to the player ("it does not exist." and the like), or an
    // empty string when it can.
    static QString notAMovieFile(const QString &path);
    // Plays the file in place of what played before.
    void playVideo(const QString &filePath);
    // Stops and releases the movie; the camera's pictures come back.
    void stopVideoPlayback();
    // Tells the user why a movie was refused or stopped: "“name” cannot be played: reason"
    // in a modal alert.
    void showMovieAlert(const QString &fileName, const QString &reason);

    bool isPlayingVideo() const { return m_isPlayingVideo.load(std::memory_order_relaxed); }
    const std::shared_ptr<PlayerItem> &playerItem() const { return m_playerItem; }
    const std::shared_ptr<MoviePlayer> &player() const { return m_player; }

Q_SIGNALS:
    void pictureReady(const QImage &picture);
    // After a movie started (true) or was stopped (false).
    void playingChanged(bool playing);

private:
    void updateVideoFrame();
    void playerItemDidReachEnd();
    void reversePlaybackAtEnd();

    AlertPresenter *const m_alerts;
    Timers &m_timers;
    std::atomic<bool> m_isPlayingVideo{false};
    std::shared_ptr<PlayerItem> m_playerItem;
    std::shared_ptr<PlayerItemVideoOutput> m_itemVideoOutput;
    std::shared_ptr<MoviePlayer> m_player;
    bool m_endReached = false;
    std::unique_ptr<RepeatingTimer> m_videoFrameTimer;
};

} // namespace vistrel::camera
