// The settings file as users and other programs leave it: wrong types and damage read
// as absent, and the app's writes change its own line and nothing else.
#include "core/UserDefaults.h"

#include "SystemLogCapture.h"
#include "TestHome.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

const QString kComplete = QStringLiteral("onboardingComplete");
const QString kInstalled = QStringLiteral("extensionInstalled");
const QString kDismissed = QStringLiteral("updateCheckerDismissedBuild");

} // namespace

// Odd values read as absent; each write replaces (or adds) exactly its own line, leaving
// comments, raw bytes, foreign values, broken sections and line endings as they were.
TEST(SettingsTest, WrongTypesReadAsAbsentAndWritesTouchOnlyTheirOwnLine)
{
    const QByteArray damaged =
        QByteArray("# kept by hand: do not touch\r\n[General]\r\nonboardingComplete=maybe\r\n"
                   "extensionInstalled=@Rect(1 2 3 4)\r\nupdateCheckerDismissedBuild=@ByteArray(120)\r\n"
                   "shape=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x5Qxyz)\r\n")
        + QByteArray("blob=\x00\x01\xff\xfe raw\r\n", 15) + "[Broken\r\nmine = keep me\r\n[Other]\r\n"
        + "onboardingComplete=false\r\nhuge=" + QByteArray(1 << 20, 'A') + "\r\ntruncated=\"no closing quote";
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Vistrel.conf"));
    ASSERT_TRUE(test::writeFile(path, damaged));
    UserDefaults defaults(path);
    EXPECT_FALSE(defaults.boolForKey(kComplete));
    EXPECT_FALSE(defaults.boolForKey(kInstalled));
    EXPECT_EQ(defaults.integerForKey(kDismissed), 0);

    defaults.setBool(kComplete, true);
    defaults.setInteger(kDismissed, 121);
    defaults.setInteger(kDismissed, 131); // same length, same instant
    EXPECT_EQ(defaults.integerForKey(kDismissed), 131);
    const UserDefaults reader(path); // what another reader finds
    EXPECT_TRUE(reader.boolForKey(kComplete));
    EXPECT_EQ(reader.integerForKey(kDismissed), 131);
    QByteArray expected = damaged;
    expected.replace("onboardingComplete=maybe\r\n", "onboardingComplete=true\r\n")
        .replace("updateCheckerDismissedBuild=@ByteArray(120)\r\n", "updateCheckerDismissedBuild=131\r\n");
    EXPECT_TRUE(test::readFile(path) == expected) << "the rest of the file changed";

    // No general section yet: one is made on top, the rest stays below it.
    const QString other = folder.filePath(QStringLiteral("other.conf"));
    ASSERT_TRUE(test::writeFile(other, "[Other]\nonboardingComplete=false\nx=1"));
    UserDefaults(other).setBool(kInstalled, true);
    EXPECT_EQ(test::readFile(other),
              QByteArray("[General]\nextensionInstalled=true\n[Other]\nonboardingComplete=false\nx=1"));

    // A folder where the file belongs: the write is logged and holds for this run.
    const QString blocked = folder.filePath(QStringLiteral("blocked.conf"));
    ASSERT_TRUE(QDir().mkpath(blocked));
    UserDefaults held(blocked);
    test::SystemLogCapture log;
    held.setBool(kComplete, true);
    EXPECT_TRUE(held.boolForKey(kComplete));
    EXPECT_TRUE(log.lines().size() == 1
                && log.lines()[0].startsWith(QStringLiteral("settings: onboardingComplete not saved to ") + blocked))
        << log.lines().join(u'\n').toStdString();
}
