// The movie-file source.
#include "camera/ViewController.h"

namespace vistrel {

// Movie playback is not wired yet: opening a file does nothing until the playbin source lands.
void ViewController::openVideoFile(QObject *) {}
void ViewController::playVideo(const QString &) {}
void ViewController::stopVideo(QObject *) {}
void ViewController::stopVideoPlayback(QObject *) {}
void ViewController::updateVideoFrame() {}
void ViewController::playerItemDidReachEnd() {}
void ViewController::videoDidEnd() {}
void ViewController::reversePlaybackAtEnd() {}

} // namespace vistrel
