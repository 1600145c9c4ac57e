#include "core/Bundle.h"

#include "core/BuildInfo.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace vistrel {

Bundle Bundle::forExecutable(const QString &executablePath)
{
    Bundle bundle;
    bundle.executablePath = executablePath;
    const QDir binDir = QFileInfo(executablePath).absoluteDir();
    bundle.shareDir = QDir::cleanPath(binDir.absoluteFilePath(QStringLiteral("../share/vistrel")));
    bundle.bundleIdentifier = kBundleIdentifier;
    bundle.infoDictionary = {
        {QStringLiteral("CFBundleIdentifier"), kBundleIdentifier},
        {QStringLiteral("CFBundleVersion"), QString::fromLatin1(buildinfo::kBuildNumber)},
        {QStringLiteral("CFBundleShortVersionString"), QString::fromLatin1(buildinfo::kShortVersion)},
    };
    return bundle;
}

const Bundle &Bundle::main()
{
    static const Bundle bundle = forExecutable(QCoreApplication::applicationFilePath());
    return bundle;
}

QString Bundle::prefixDir() const
{
    return QDir::cleanPath(shareDir + QStringLiteral("/../.."));
}

} // namespace vistrel
