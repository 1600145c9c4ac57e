#include "app/UserDefaults.h"

#include <QVariant>

namespace vistrel {

UserDefaults::UserDefaults()
    : m_settings(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                             QStringLiteral("Vistrel"), QStringLiteral("Vistrel")))
{
}

UserDefaults::UserDefaults(const QString &iniFilePath)
    : m_settings(std::make_unique<QSettings>(iniFilePath, QSettings::NativeFormat))
{
}

UserDefaults &UserDefaults::standard()
{
    static UserDefaults defaults;
    return defaults;
}

bool UserDefaults::boolForKey(const QString &key) const
{
    const QVariant value = m_settings->value(key);
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
    const QVariant value = m_settings->value(key);
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return value.toLongLong();
    case QMetaType::QString: {
        bool ok = false;
        const qint64 parsed = value.toString().toLongLong(&ok, 10);
        return ok ? parsed : 0;
    }
    default:
        return 0;
    }
}

bool UserDefaults::hasKey(const QString &key) const
{
    return m_settings->contains(key);
}

void UserDefaults::setBool(const QString &key, bool value)
{
    m_settings->setValue(key, value);
    m_settings->sync();
}

void UserDefaults::setInteger(const QString &key, qint64 value)
{
    m_settings->setValue(key, value);
    m_settings->sync();
}

void UserDefaults::sync()
{
    m_settings->sync();
}

} // namespace vistrel
