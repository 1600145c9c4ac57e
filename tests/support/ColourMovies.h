#pragma once
#include <QString>
#include <QStringList>

namespace vistrel::test {

// Movie files made at run time with the ffmpeg command-line tool: three solid-colour
// segments, yellow, magenta then cyan, each half a second long, 96x64 at 24 frames per
// second, so that the order of decoded pictures tells forwards from backwards.
namespace ColourMovies {

inline const QStringList kColourOrder{QStringLiteral("yellow"), QStringLiteral("magenta"), QStringLiteral("cyan")};

// Writes `directory/<name>` encoded with the given ffmpeg codec arguments (for
// example {"-c:v", "libx264", "-pix_fmt", "yuv420p"}); the container follows the file
// name's extension. Answers the path, or an empty string when ffmpeg failed.
QString make(const QString &directory, const QString &name, const QStringList &codecArguments);

// Runs ffmpeg with `arguments` (inputs and codecs) writing `directory/<name>`.
// Answers the path, or an empty string when ffmpeg failed.
QString ffmpeg(const QString &directory, const QString &name, const QStringList &arguments);

// The name of the palette colour nearest to `rgb` among the movie colours and the
// test cameras' colours (red, green, blue, white), or an empty string when none is
// close.
QString nearestColourName(unsigned rgb);

} // namespace ColourMovies
} // namespace vistrel::test
