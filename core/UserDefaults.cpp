#include "core/UserDefaults.h"

#include "core/SystemLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QVariant>

namespace vistrel {
namespace {

// `content` with `key`'s line in the general section set to `key=text`, every other byte
// as it was. A key repeated there has each of its lines set; a missing key is added just
// under the "[General]" header (made first when there is none).
QByteArray withValue(const QByteArray &content, const QByteArray &key, const QByteArray &text)
{
    const QByteArray line = key + '=' + text;
    QByteArray result;
    result.reserve(content.size() + line.size() + 12);
    bool general = true; // lines before any section header belong to the general section
    bool found = false;
    qsizetype generalHeaderEnd = -1;
    for (qsizetype start = 0; start < content.size();) {
        qsizetype end = content.indexOf('\n', start);
        end = end < 0 ? content.size() : end + 1;
        const QByteArray raw = content.mid(start, end - start);
        const QByteArray trimmed = raw.trimmed();
        start = end;
        if (trimmed.startsWith('[')) {
            general = trimmed == "[General]";
            result += raw;
            if (general && generalHeaderEnd < 0) {
                if (!result.endsWith('\n'))
                    result += '\n';
                generalHeaderEnd = result.size();
            }
            continue;
        }
        const qsizetype equals = trimmed.indexOf('=');
        if (general && equals > 0 && trimmed.left(equals).trimmed() == key) {
            // The line's own ending stays ("\r\n" included).
            qsizetype body = raw.size();
            while (body > 0 && (raw[body - 1] == '\n' || raw[body - 1] == '\r'))
                --body;
            result += line + raw.mid(body);
            found = true;
            continue;
        }
        result += raw;
    }
    if (found)
        return result;
    if (generalHeaderEnd >= 0)
        return result.insert(generalHeaderEnd, line + '\n');
    return "[General]\n" + line + '\n' + result;
}

} // namespace

UserDefaults::UserDefaults()
    : m_settings(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Vistrel"),
                                             QStringLiteral("Vistrel")))
{}

UserDefaults::UserDefaults(const QString &iniFilePath)
    : m_settings(std::make_unique<QSettings>(iniFilePath, QSettings::NativeFormat))
{}

UserDefaults &UserDefaults::standard()
{
    static UserDefaults defaults;
    return defaults;
}

QVariant UserDefaults::value(const QString &key) const
{
    const auto written = m_written.constFind(key);
    return written != m_written.cend() ? *written : m_settings->value(key);
}

bool UserDefaults::boolForKey(const QString &key) const
{
    const QVariant value = this->value(key);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    // The INI backend hands values back as text.
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        if (text == QLatin1String("true"))
            return true;
    }
    return false;
}

qint64 UserDefaults::integerForKey(const QString &key) const
{
    const QVariant value = this->value(key);
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong: return value.toLongLong();
    case QMetaType::QString: {
        bool ok = false;
        const qint64 parsed = value.toString().toLongLong(&ok, 10);
        return ok ? parsed : 0;
    }
    default: return 0;
    }
}

bool UserDefaults::hasKey(const QString &key) const
{
    return m_written.contains(key) || m_settings->contains(key);
}

void UserDefaults::setBool(const QString &key, bool value)
{
    store(key, value ? QByteArrayLiteral("true") : QByteArrayLiteral("false"));
}

void UserDefaults::setInteger(const QString &key, qint64 value)
{
    store(key, QByteArray::number(value));
}

void UserDefaults::store(const QString &key, const QByteArray &text)
{
    // As the INI backend would read it back: text.
    m_written.insert(key, QString::fromLatin1(text));
    const QString path = m_settings->fileName();
    const auto fail = [&](const QString &why) {
        systemLog(QStringLiteral("settings: ") + key + QStringLiteral(" not saved to ") + path + QStringLiteral(": ")
                  + why);
    };
    QFile current(path);
    QByteArray content;
    if (current.exists()) {
        if (!current.open(QIODevice::ReadOnly))
            return fail(current.errorString());
        content = current.readAll();
        current.close();
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    // Written whole to a new file that then takes the old one's place: a crash or a full
    // disk leaves the previous file, never half of one.
    QSaveFile file(path);
    const QByteArray edited = withValue(content, key.toUtf8(), text);
    if (!file.open(QIODevice::WriteOnly) || file.write(edited) != edited.size() || !file.commit())
        return fail(file.errorString());
}

void UserDefaults::sync()
{
    m_settings->sync();
}

} // namespace vistrel
