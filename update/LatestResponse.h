#pragma once
#include <QByteArray>
#include <QString>
#include <optional>

namespace vistrel {

// The update feed's record. Decoding is strict: a missing required key, a value of
// the wrong type (a fractional or out-of-range number where an integer belongs) or a
// body that is not a JSON object gives nothing. Unknown keys are ignored; a null
// optional value counts as absent.
struct LatestResponse
{
    QString latestShortVersion;
    qint64 latestBuild = 0;
    std::optional<qint64> minimumBuild;
    QString downloadURL;
    std::optional<QString> releaseNotes;
    std::optional<QString> releaseNotesURL;

    static std::optional<LatestResponse> decode(const QByteArray &json);
    // The same keys; absent optional fields are left out.
    QByteArray encode() const;

    bool operator==(const LatestResponse &) const = default;
};

} // namespace vistrel
