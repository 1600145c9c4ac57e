#include "sysext/ExtensionBundle.h"

#include "sysext/ExtensionFiles.h"

#include <QFile>
#include <QUrl>
#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

namespace vistrel::sysext {
namespace {

[[noreturn]] void fatal(const QString &message)
{
    qFatal("%s", qPrintable(message));
    std::abort();
}

} // namespace

ExtensionBundle readExtensionBundle(const QString &path)
{
    ExtensionBundle bundle;
    bundle.path = path;
    QFile manifestFile(path + QLatin1Char('/')
                       + QString::fromLatin1(files::kManifestName.data(), files::kManifestName.size()));
    if (!manifestFile.open(QIODevice::ReadOnly))
        return bundle;
    const QByteArray text = manifestFile.read(64 * 1024);
    const files::Manifest manifest = files::parseManifest(std::string_view(text.constData(), text.size()));
    bundle.identifier = QString::fromStdString(manifest.identifier);
    bundle.shortVersion = QString::fromStdString(manifest.shortVersion);
    return bundle;
}

ExtensionBundle extensionBundle(const Bundle &bundle)
{
    namespace fs = std::filesystem;
    const QString folder = bundle.systemExtensionsDir();
    std::error_code error;
    fs::directory_iterator listing(fs::path(folder.toStdString()), error);
    std::vector<fs::path> entries;
    for (; !error && listing != fs::directory_iterator(); listing.increment(error)) {
        const std::string name = listing->path().filename().string();
        if (!name.starts_with('.'))
            entries.push_back(listing->path());
    }
    if (error) {
        fatal(QStringLiteral("Failed to get the contents of ") + QUrl::fromLocalFile(folder).toString()
              + QStringLiteral(": ") + QString::fromLocal8Bit(error.message().c_str()));
    }
    if (entries.empty())
        fatal(QStringLiteral("Failed to find any system extensions"));
    std::sort(entries.begin(), entries.end());
    const fs::path &first = entries.front();
    if (!fs::is_directory(first, error))
        fatal(QStringLiteral("Failed to find any system extensions"));
    return readExtensionBundle(QString::fromStdString(first.string()));
}

} // namespace vistrel::sysext
