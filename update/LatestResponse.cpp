#include "update/LatestResponse.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <cmath>

namespace vistrel {
namespace {

// A JSON number that is an exact 64-bit integer. The parser keeps integer literals
// that fit in 64 bits exactly; anything else arrives as a double, which is accepted
// only when it is whole and in range.
std::optional<qint64> exactInteger(const QJsonValue &value)
{
    if (!value.isDouble())
        return std::nullopt;
    const QVariant variant = value.toVariant();
    if (variant.typeId() == QMetaType::LongLong || variant.typeId() == QMetaType::Int)
        return variant.toLongLong();
    const double number = value.toDouble();
    // 2^63 is the first double past the range; every double below it in magnitude
    // that is whole converts exactly.
    if (!std::isfinite(number) || std::trunc(number) != number || number >= 9223372036854775808.0
        || number < -9223372036854775808.0)
        return std::nullopt;
    return static_cast<qint64>(number);
}

// Required string: present and a string. Optional string: absent, null, or a string.
bool requiredString(const QJsonObject &object, const char *key, QString &out)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

bool optionalString(const QJsonObject &object, const char *key, std::optional<QString> &out)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

} // namespace

std::optional<LatestResponse> LatestResponse::decode(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();

    LatestResponse response;
    if (!requiredString(object, "latestShortVersion", response.latestShortVersion)
        || !requiredString(object, "downloadURL", response.downloadURL)
        || !optionalString(object, "releaseNotes", response.releaseNotes)
        || !optionalString(object, "releaseNotesURL", response.releaseNotesURL))
        return std::nullopt;

    const std::optional<qint64> latest = exactInteger(object.value(QLatin1String("latestBuild")));
    if (!latest)
        return std::nullopt;
    response.latestBuild = *latest;

    const QJsonValue minimum = object.value(QLatin1String("minimumBuild"));
    if (!minimum.isUndefined() && !minimum.isNull()) {
        response.minimumBuild = exactInteger(minimum);
        if (!response.minimumBuild)
            return std::nullopt;
    }
    return response;
}

QByteArray LatestResponse::encode() const
{
    QJsonObject object{{QStringLiteral("latestShortVersion"), latestShortVersion},
                       {QStringLiteral("latestBuild"), latestBuild},
                       {QStringLiteral("downloadURL"), downloadURL}};
    if (minimumBuild)
        object.insert(QStringLiteral("minimumBuild"), *minimumBuild);
    if (releaseNotes)
        object.insert(QStringLiteral("releaseNotes"), *releaseNotes);
    if (releaseNotesURL)
        object.insert(QStringLiteral("releaseNotesURL"), *releaseNotesURL);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace vistrel
