#pragma once
#include <QHash>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <memory>

namespace vistrel {

// The application's standard user defaults over QSettings ("Vistrel"/"Vistrel",
// ~/.config/Vistrel/Vistrel.conf). An absent key, or a value of the wrong type,
// reads as false / 0.
//
// Reads go through QSettings. Writes edit only the key's own line of the file: QSettings
// would rewrite the whole file from what it understood of it, so one flag written into a
// hand-edited or damaged file would re-encode or drop the lines it could not read
// (comments, raw bytes, unknown values, a broken section). A write that cannot be saved
// is logged and still holds for this run.
class UserDefaults
{
public:
    // Settings at the standard place for the current user.
    UserDefaults();
    // Settings in the given INI file (tests, tools).
    explicit UserDefaults(const QString &iniFilePath);

    static UserDefaults &standard();

    bool boolForKey(const QString &key) const;
    qint64 integerForKey(const QString &key) const;
    bool hasKey(const QString &key) const;
    void setBool(const QString &key, bool value);
    void setInteger(const QString &key, qint64 value);
    void sync();

private:
    QVariant value(const QString &key) const;
    void store(const QString &key, const QByteArray &text);

    std::unique_ptr<QSettings> m_settings;
    // What this run wrote, as the file holds it: the file's own timestamp and size cannot
    // tell QSettings about two writes of the same length within one millisecond.
    QHash<QString, QVariant> m_written;
};

} // namespace vistrel
