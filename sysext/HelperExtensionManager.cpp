#include "sysext/HelperExtensionManager.h"

#include "sysext/ExtensionBundle.h"
#include "sysext/ExtensionFiles.h"
#include "vcam/v4l2loopback/VideoDeviceList.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <sys/stat.h>

namespace vistrel::sysext {
namespace {

constexpr int kPkexecDismissed = 126;
constexpr int kPkexecNotAuthorized = 127;
// What pkexec says when polkit's answer is no, rather than "No authentication agent found."
constexpr const char *kPkexecRefused = "Not authorized";

QString installedFilePath(const QString &dir, const QString &identifier)
{
    return dir + QLatin1Char('/') + QString::fromStdString(files::installedFileName(identifier.toStdString()));
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(64 * 1024) : QByteArray();
}

std::optional<files::Marker> markerOf(const QByteArray &content)
{
    return files::parseMarker(std::string_view(content.constData(), content.size()));
}

// The exact file the helper writes: its record line, then the bundled configuration.
QByteArray expectedInstalledFile(const QString &identifier, const QString &version, const QString &bundledFile)
{
    const std::string marker =
        files::markerLine({identifier.toStdString(), version.toStdString(), std::string(files::kStateInstalled)});
    return QByteArray::fromStdString(marker) + '\n' + readAll(bundledFile);
}

bool cameraPresent(const CameraExtensionHelper::Roots &roots)
{
    for (const vcam::VideoDeviceEntry &device : vcam::listVideoDevices(roots.sysRoot, roots.devRoot)) {
        if (device.isLoopback() && device.name == QLatin1String(files::kCameraName.data(), files::kCameraName.size()))
            return true;
    }
    return false;
}

} // namespace

HelperExtensionManager::Config HelperExtensionManager::configFor(const Bundle &bundle)
{
    Config config;
    const QString prefix = bundle.prefixDir();
    config.helperPath = prefix + QStringLiteral("/libexec/vistrel/") + kHelperName;
    config.policyPath = prefix + QStringLiteral("/share/polkit-1/actions/") + kPolicyName;
    config.extensionsDir = bundle.systemExtensionsDir();
    return config;
}

HelperExtensionManager::HelperExtensionManager(Config config, QObject *parent)
    : QObject(parent), m_config(std::move(config))
{}

void HelperExtensionManager::submitRequest(ExtensionRequest request)
{
    QMetaObject::invokeMethod(
        this,
        [this, request] {
            m_waiting.push_back(request);
            runNext();
        },
        Qt::QueuedConnection);
}

void HelperExtensionManager::runNext()
{
    // Each request is judged on the state the one before it left.
    while (!m_helperRunning && !m_waiting.empty()) {
        const ExtensionRequest request = m_waiting.front();
        m_waiting.pop_front();
        run(request);
    }
}

void HelperExtensionManager::helperGone(QProcess *process)
{
    process->deleteLater();
    m_helperRunning = false;
    QMetaObject::invokeMethod(this, &HelperExtensionManager::runNext, Qt::QueuedConnection);
}

void HelperExtensionManager::fail(const ExtensionRequest &request, int code, const QString &description)
{
    if (request.delegate)
        request.delegate->requestDidFailWithError({kSystemExtensionErrorDomain, code, description});
}

bool HelperExtensionManager::alreadyDone(const ExtensionRequest &request, const QString &bundledVersion) const
{
    const QString modprobeFile =
        installedFilePath(m_config.roots.etcRoot + QStringLiteral("/modprobe.d"), request.identifier);
    const QString modulesLoadFile =
        installedFilePath(m_config.roots.etcRoot + QStringLiteral("/modules-load.d"), request.identifier);
    if (request.kind == RequestKind::Deactivation)
        return !QFileInfo::exists(modprobeFile) && !QFileInfo::exists(modulesLoadFile)
            && !cameraPresent(m_config.roots);

    const QString bundled = m_config.extensionsDir + QLatin1Char('/') + request.identifier + QLatin1Char('/');
    const auto name = [](std::string_view text) { return QString::fromLatin1(text.data(), text.size()); };
    return readAll(modprobeFile)
        == expectedInstalledFile(request.identifier, bundledVersion, bundled + name(files::kModprobeConfigName))
        && readAll(modulesLoadFile)
        == expectedInstalledFile(request.identifier, bundledVersion, bundled + name(files::kModulesLoadConfigName))
        && cameraPresent(m_config.roots);
}

std::optional<QString> HelperExtensionManager::installationProblem() const
{
    struct stat info = {};
    const QByteArray helper = QFile::encodeName(m_config.helperPath);
    if (::stat(helper.constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return QStringLiteral("The camera extension helper is not installed at ") + m_config.helperPath
            + QLatin1Char('.');
    if (info.st_uid != m_config.helperOwner || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return QStringLiteral("The camera extension helper at ") + m_config.helperPath
            + QStringLiteral(" is not installed by the administrator (Vistrel runs from its build folder).");
    if (!QFileInfo(m_config.policyPath).isFile())
        return QStringLiteral("The polkit policy is not installed at ") + m_config.policyPath + QLatin1Char('.');
    return std::nullopt;
}

void HelperExtensionManager::run(const ExtensionRequest &request)
{
    const ExtensionBundle bundled = readExtensionBundle(m_config.extensionsDir + QLatin1Char('/') + request.identifier);
    if (bundled.identifier != request.identifier || bundled.shortVersion.isEmpty()) {
        fail(request, UnknownError,
             QStringLiteral("The camera extension ") + request.identifier
                 + QStringLiteral(" is not part of this installation."));
        return;
    }
    if (alreadyDone(request, bundled.shortVersion)) {
        if (request.delegate)
            request.delegate->requestDidFinishWithResult(Completed);
        return;
    }
    if (const auto problem = installationProblem()) {
        fail(request, UnsupportedParentBundleLocation, *problem);
        return;
    }
    if (!QFileInfo(m_config.pkexecPath).isExecutable()) {
        fail(request, UnknownError,
             QStringLiteral("pkexec is not installed at ") + m_config.pkexecPath + QStringLiteral(": install polkit."));
        return;
    }
    if (request.kind == RequestKind::Activation) {
        const QString installedFile =
            installedFilePath(m_config.roots.etcRoot + QStringLiteral("/modprobe.d"), request.identifier);
        const auto installed = markerOf(readAll(installedFile));
        const QString installedVersion = installed ? QString::fromStdString(installed->version) : QString();
        if (installed && installed->state == files::kStateInstalled && installedVersion != bundled.shortVersion
            && request.delegate
            && request.delegate->actionForReplacingExtension(installedVersion, bundled.shortVersion) != Replace) {
            fail(request, RequestCanceled, QStringLiteral("The replacement of the camera extension was cancelled."));
            return;
        }
    }
    startHelper(request);
}

void HelperExtensionManager::startHelper(const ExtensionRequest &request)
{
    auto *process = new QProcess(this);
    process->setProgram(m_config.pkexecPath);
    process->setArguments(
        {m_config.helperPath,
         request.kind == RequestKind::Activation ? QStringLiteral("activate") : QStringLiteral("deactivate"),
         request.identifier});
    process->setStandardInputFile(QProcess::nullDevice());
    // pkexec's messages are told apart by their words (see helperFinished), so they must
    // not come translated; the password dialog is the session agent's, in the user's
    // language whatever this says.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    process->setProcessEnvironment(environment);
    connect(process, &QProcess::finished, this, [this, request, process] {
        helperFinished(request, process);
        helperGone(process);
    });
    connect(process, &QProcess::errorOccurred, this, [this, request, process](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        fail(request, UnknownError, QStringLiteral("pkexec could not be started: ") + process->errorString());
        helperGone(process);
    });
    m_helperRunning = true;
    process->start();
}

void HelperExtensionManager::helperFinished(const ExtensionRequest &request, QProcess *process)
{
    const QString output = QString::fromUtf8(process->readAllStandardOutput());
    const QString errors = QString::fromUtf8(process->readAllStandardError()).trimmed();
    QString outcome;
    for (const QString &line : output.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("outcome "))) {
            outcome = line.mid(8).trimmed();
            break;
        }
    }

    if (outcome == QLatin1String("completed")) {
        if (request.delegate)
            request.delegate->requestDidFinishWithResult(Completed);
    } else if (outcome == QLatin1String("reboot")) {
        if (request.delegate)
            request.delegate->requestDidFinishWithResult(WillCompleteAfterReboot);
    } else if (outcome == QLatin1String("needs-approval")) {
        if (request.delegate)
            request.delegate->requestNeedsUserApproval();
    } else if (outcome.startsWith(QLatin1String("failed "))) {
        const QString rest = outcome.mid(7);
        bool numeric = false;
        const int code = rest.section(QLatin1Char(' '), 0, 0).toInt(&numeric);
        fail(request, numeric ? code : UnknownError, rest.section(QLatin1Char(' '), 1));
    } else if (process->exitStatus() == QProcess::NormalExit && process->exitCode() == kPkexecDismissed) {
        fail(request, RequestCanceled, QStringLiteral("The password prompt was dismissed."));
    } else if (process->exitStatus() == QProcess::NormalExit && process->exitCode() == kPkexecNotAuthorized) {
        // pkexec ends so both when polkit says no (a rule of the administrator's, or the
        // action's own default) and when it could not ask: no authentication agent runs.
        const bool refused = errors.contains(QLatin1String(kPkexecRefused));
        fail(request, refused ? ForbiddenBySystemPolicy : AuthorizationRequired,
             QStringLiteral("Vistrel is not authorised to set up the camera extension")
                 + (errors.isEmpty() ? QStringLiteral(".") : QStringLiteral(": ") + errors));
    } else {
        const QString how = process->exitStatus() == QProcess::CrashExit
            ? QStringLiteral("it crashed")
            : QStringLiteral("exit status ") + QString::number(process->exitCode());
        fail(request, UnknownError,
             QStringLiteral("The camera extension helper ended without an answer (") + how + QLatin1Char(')')
                 + (errors.isEmpty() ? QString() : QStringLiteral(": ") + errors.section(QLatin1Char('\n'), -1)));
    }
}

} // namespace vistrel::sysext
