#pragma once
#include <QDir>
#include <QFile>
#include <QString>

namespace vistrel::test {

// The temporary HOME that the test main set up for this process.
inline QString home() { return QDir::homePath(); }

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

} // namespace vistrel::test
