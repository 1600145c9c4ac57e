#pragma once
#include "core/Services.h"
#include "update/LatestResponse.h"

#include <QObject>
#include <QPointer>
#include <QUrl>
#include <chrono>
#include <functional>
#include <optional>

class QNetworkAccessManager;

namespace vistrel {

// Asks the update feed for the newest build and offers it, or insists on it when
// this build is no longer supported. Keeps no state between checks; the only thing
// remembered across launches is the build the user put off ("Later").
class UpdateChecker : public QObject
{
    Q_OBJECT
public:
    // The whole check, from request to the last byte, must end within this.
    static constexpr std::chrono::milliseconds kDefaultTimeout{10000};
    // The largest feed body accepted; a reply that is, or says it is, larger fails.
    static constexpr qint64 kMaxBodySize = 1024 * 1024;

    // An address that is not http or https (or does not parse) is logged once here;
    // every check made with it then fails without touching the network.
    explicit UpdateChecker(QUrl latestURL, std::chrono::milliseconds deadline = kDefaultTimeout,
                           QObject *parent = nullptr);
    ~UpdateChecker() override;

    // The process-wide checker, made on first use: the feed named by
    // VISTREL_UPDATE_URL, else the vendor's.
    static UpdateChecker &shared();
    static QUrl defaultLatestURL();

    // Fields, in declaration order.
    const QUrl latestURL;
    const QString dismissedBuildKey = QStringLiteral("updateCheckerDismissedBuild");

    // This program's build number ("CFBundleVersion"), 0 when absent or not a
    // base-10 integer.
    static qint64 currentBuildNumber(const Bundle &bundle);

    // GET the feed, bypassing any cache. `done` runs on the main thread with the
    // decoded record, or nothing for an address that is not http or https, a
    // transport error, a check that outlives its deadline, a status other than 200,
    // a body over kMaxBodySize, a body that does not decode, or a download address
    // that parses but is not http or https. Dropped when `context` goes away first.
    void fetchLatest(QObject *context, std::function<void(std::optional<LatestResponse>)> done);

    // One check: fetch, log, compare, and run the alert the result calls for.
    // Returns at once; checkFinished() is emitted when the check is over.
    void checkForUpdates(const Services &services, QObject *context = nullptr);

    void showUpdateAvailableAlert(const Services &services, const LatestResponse &response);
    void showUpdateRequiredAlert(const Services &services, const LatestResponse &response);
    // Opens the download address with the desktop's handler, when it is an http or
    // https address; anything else is left alone.
    void openDownloadPage(const Services &services, const LatestResponse &response);

Q_SIGNALS:
    void checkFinished();

private:
    void evaluate(const Services &services, qint64 current, const std::optional<LatestResponse> &response);

    std::chrono::milliseconds m_deadline;
    QPointer<QNetworkAccessManager> m_network;
};

} // namespace vistrel
