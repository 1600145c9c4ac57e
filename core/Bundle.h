#pragma once
#include <QString>
#include <QVariantMap>

namespace vistrel {

inline const QString kBundleIdentifier = QStringLiteral("app.vistrel.Vistrel");

// Where the running program and its shipped files are. The share folder sits at
// <executable>/../share/vistrel both in the build tree and in an installation.
struct Bundle
{
    QString executablePath; // empty when unknown
    QString shareDir;       // .../share/vistrel
    QString bundleIdentifier;
    QVariantMap infoDictionary; // CFBundleVersion, CFBundleShortVersionString, CFBundleIdentifier

    static const Bundle &main();
    static Bundle forExecutable(const QString &executablePath);

    QString mainInterfacePath() const { return shareDir + QStringLiteral("/Main.ui"); }
    QString systemExtensionsDir() const { return shareDir + QStringLiteral("/SystemExtensions"); }
    QString prefixDir() const; // the installation prefix (or the build tree)
};

} // namespace vistrel
