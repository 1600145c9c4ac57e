#include "update/UpdateChecker.h"

#include "core/Platform.h"
#include "core/SystemLog.h"
#include "core/UserDefaults.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>

namespace vistrel {
namespace {

// Only web addresses are fetched or opened: the network layer would also read local
// files (file:, data:, qrc:), and the desktop opener would run whatever handler a
// scheme names.
bool isWebAddress(const QUrl &url)
{
    return url.isValid() && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"))
        && !url.host().isEmpty();
}

} // namespace

UpdateChecker::UpdateChecker(QUrl url, std::chrono::milliseconds deadline, QObject *parent)
    : QObject(parent), latestURL(std::move(url)), m_deadline(deadline)
{
    // A misconfigured feed address is said once; each check then fails as an
    // unreachable feed would.
    if (!latestURL.isValid())
        systemLog(QStringLiteral("update check: cannot use the update address: ") + latestURL.errorString());
    else if (!isWebAddress(latestURL))
        systemLog(QStringLiteral("update check: cannot use the update address \"") + latestURL.toDisplayString()
                  + QStringLiteral("\": only http and https addresses are fetched"));
}

UpdateChecker::~UpdateChecker() = default;

QUrl UpdateChecker::defaultLatestURL()
{
    const QString overridden = qEnvironmentVariable("VISTREL_UPDATE_URL");
    return QUrl(overridden.isEmpty() ? QStringLiteral("https://vistrel.app/updates/latest.json") : overridden,
                QUrl::StrictMode);
}

UpdateChecker &UpdateChecker::shared()
{
    // Lives as long as the application object, which owns it.
    static QPointer<UpdateChecker> instance;
    if (!instance)
        instance = new UpdateChecker(defaultLatestURL(), kDefaultTimeout, QCoreApplication::instance());
    return *instance;
}

qint64 UpdateChecker::currentBuildNumber(const Bundle &bundle)
{
    const QVariant version = bundle.infoDictionary.value(QStringLiteral("CFBundleVersion"));
    if (version.typeId() != QMetaType::QString)
        return 0;
    // Sign and ASCII digits only: no spaces, no dots. toLongLong rejects overflow.
    static const QRegularExpression integer(QRegularExpression::anchoredPattern(QStringLiteral("[+-]?[0-9]+")));
    const QString text = version.toString();
    if (!integer.match(text).hasMatch())
        return 0;
    bool ok = false;
    const qint64 number = text.toLongLong(&ok, 10);
    return ok ? number : 0;
}

void UpdateChecker::fetchLatest(QObject *context, std::function<void(std::optional<LatestResponse>)> done)
{
    QPointer<QObject> guard(context);
    const bool hasContext = context != nullptr;
    if (!isWebAddress(latestURL)) {
        // Answered from the event loop all the same, so the caller never sees the
        // result before the call returns.
        QMetaObject::invokeMethod(
            this,
            [guard, hasContext, done = std::move(done)] {
                if (!hasContext || guard)
                    done(std::nullopt);
            },
            Qt::QueuedConnection);
        return;
    }

    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    QNetworkRequest request(latestURL);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);

    QNetworkReply *reply = m_network->get(request);
    // The network layer stops reading once this much is waiting; the body is moved
    // out as it arrives, so it never holds more than the cap between two reads.
    reply->setReadBufferSize(kMaxBodySize);

    // One deadline for the whole exchange, redirects and a server that sends a byte
    // now and then included; aborting ends the reply as a failure.
    auto *deadline = new QTimer(reply);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, reply, &QNetworkReply::abort);
    deadline->start(m_deadline);

    // A feed record is a few hundred bytes: a reply that says, or turns out, to be
    // larger than the cap is abandoned instead of being held in memory.
    auto body = std::make_shared<QByteArray>();
    connect(reply, &QNetworkReply::metaDataChanged, reply, [reply] {
        if (reply->header(QNetworkRequest::ContentLengthHeader).toLongLong() > kMaxBodySize)
            reply->abort();
    });
    connect(reply, &QNetworkReply::readyRead, reply, [reply, body] {
        body->append(reply->read(kMaxBodySize + 1 - body->size()));
        if (body->size() > kMaxBodySize)
            reply->abort();
    });

    connect(reply, &QNetworkReply::finished, this, [reply, body, deadline, guard, hasContext, done = std::move(done)] {
        deadline->stop();
        reply->deleteLater();
        if (hasContext && !guard)
            return;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (reply->error() != QNetworkReply::NoError || !status.isValid() || status.toInt() != 200) {
            done(std::nullopt);
            return;
        }
        body->append(reply->read(kMaxBodySize + 1 - body->size()));
        std::optional<LatestResponse> response;
        if (body->size() <= kMaxBodySize)
            response = LatestResponse::decode(*body);
        // A download address that parses but is not a web page is not offered at all.
        if (response) {
            const QUrl download(response->downloadURL, QUrl::StrictMode);
            if (download.isValid() && !download.isEmpty() && !isWebAddress(download))
                response.reset();
        }
        done(response);
    });
}

void UpdateChecker::checkForUpdates(const Services &services, QObject *context)
{
    const qint64 current = currentBuildNumber(services.bundle);
    fetchLatest(context, [this, services, current](std::optional<LatestResponse> response) {
        evaluate(services, current, response);
        Q_EMIT checkFinished();
    });
}

void UpdateChecker::evaluate(const Services &services, qint64 current, const std::optional<LatestResponse> &response)
{
    if (!response) {
        systemLog(QStringLiteral("update check: fetch failed or no response"));
        return;
    }
    systemLog(QStringLiteral("update check: current=") + QString::number(current) + QStringLiteral(" latest=")
              + QString::number(response->latestBuild) + QStringLiteral(" min=")
              + QString::number(response->minimumBuild.value_or(0)));

    if (response->minimumBuild && current < *response->minimumBuild) {
        showUpdateRequiredAlert(services, *response);
        return;
    }
    if (current < response->latestBuild && services.defaults->integerForKey(dismissedBuildKey) < response->latestBuild)
        showUpdateAvailableAlert(services, *response);
}

void UpdateChecker::showUpdateAvailableAlert(const Services &services, const LatestResponse &response)
{
    AlertSpec alert;
    alert.title = QStringLiteral("Vistrel ") + response.latestShortVersion + QStringLiteral(" is available");
    alert.text = response.releaseNotes.value_or(
        QStringLiteral("A newer version of Vistrel is available. Download it to get the latest features and fixes."));
    alert.style = AlertStyle::Informational;
    alert.buttons = {QStringLiteral("Download"), QStringLiteral("Later")};
    if (services.alerts->runModal(alert) == 0) {
        // Not remembered: the offer returns at the next launch until the build is installed.
        openDownloadPage(services, response);
        return;
    }
    services.defaults->setInteger(dismissedBuildKey, response.latestBuild);
    services.defaults->sync();
}

void UpdateChecker::showUpdateRequiredAlert(const Services &services, const LatestResponse &response)
{
    AlertSpec alert;
    alert.title = QStringLiteral("Update required");
    alert.text = QStringLiteral("This version of Vistrel is no longer supported. Please install Vistrel ")
        + response.latestShortVersion + QStringLiteral(" to continue.");
    alert.style = AlertStyle::Critical;
    alert.buttons = {QStringLiteral("Download"), QStringLiteral("Quit")};
    if (services.alerts->runModal(alert) == 0)
        openDownloadPage(services, response);
    // An unsupported build is not kept running, whichever button was pressed.
    services.application->terminate();
}

void UpdateChecker::openDownloadPage(const Services &services, const LatestResponse &response)
{
    const QUrl url(response.downloadURL, QUrl::StrictMode);
    if (!isWebAddress(url))
        return;
    services.urlOpener->openUrl(url);
}

} // namespace vistrel
