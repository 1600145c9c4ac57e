#include "ColourMovies.h"

#include <QColor>
#include <QDir>
#include <QProcess>

namespace vistrel::test {

QString ColourMovies::make(const QString &directory, const QString &name, const QStringList &codecArguments)
{
    QString graph, labels;
    for (int i = 0; i < kColourOrder.size(); ++i) {
        graph += QStringLiteral("color=c=%1:s=96x64:r=24:d=0.5[s%2];").arg(kColourOrder[i]).arg(i);
        labels += QStringLiteral("[s%1]").arg(i);
    }
    graph += labels + QStringLiteral("concat=n=%1:v=1:a=0[out]").arg(kColourOrder.size());
    return ffmpeg(directory, name,
                  QStringList{QStringLiteral("-filter_complex"), graph, QStringLiteral("-map"), QStringLiteral("[out]")}
                      + codecArguments);
}

QString ColourMovies::ffmpeg(const QString &directory, const QString &name, const QStringList &arguments)
{
    const QString path = QDir(directory).filePath(name);
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                             QStringLiteral("-y")}
                     + arguments + QStringList{path});
    if (!ffmpeg.waitForFinished(60000) || ffmpeg.exitStatus() != QProcess::NormalExit || ffmpeg.exitCode() != 0)
        return {};
    return path;
}

QString ColourMovies::nearestColourName(unsigned rgb)
{
    struct Named
    {
        const char *name;
        int r, g, b;
    };
    static constexpr Named palette[] = {{"yellow", 255, 255, 0}, {"magenta", 255, 0, 255}, {"cyan", 0, 255, 255},
                                        {"red", 255, 0, 0},      {"green", 0, 255, 0},     {"blue", 0, 0, 255},
                                        {"white", 255, 255, 255}};
    const QColor seen = QColor::fromRgb(rgb);
    QString best;
    int bestDistance = 3 * 60 * 60;
    for (const Named &colour : palette) {
        const int dr = seen.red() - colour.r, dg = seen.green() - colour.g, db = seen.blue() - colour.b;
        const int distance = dr * dr + dg * dg + db * db;
        if (distance < bestDistance) {
            bestDistance = distance;
            best = QString::fromLatin1(colour.name);
        }
    }
    return best;
}

} // namespace vistrel::test
