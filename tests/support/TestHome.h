#pragma once
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

namespace vistrel::test {

// The temporary HOME that the test main set up for this process.
inline QString home()
{
    return QDir::homePath();
}

// Points HOME and XDG_CONFIG_HOME at `path`, so that settings and the trace file never
// touch the user's.
inline void useHome(const QString &path)
{
    qputenv("HOME", path.toUtf8());
    qputenv("XDG_CONFIG_HOME", (path + QStringLiteral("/.config")).toUtf8());
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

// Writes the whole file, making its folder first; answers whether all of it was written.
inline bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

} // namespace vistrel::test
