#include "app/NotificationCenter.h"
#include "app/UserDefaults.h"

#include "TestHome.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <gtest/gtest.h>

using namespace vistrel;

TEST(UserDefaults, StandardSettingsLiveUnderXdgConfigHome)
{
    UserDefaults defaults;
    defaults.setBool(QStringLiteral("onboardingComplete"), true);
    const QString expected = qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/Vistrel/Vistrel.conf");
    ASSERT_TRUE(QFile::exists(expected));
    EXPECT_TRUE(test::readFile(expected).contains("onboardingComplete=true"));
    EXPECT_TRUE(UserDefaults().boolForKey(QStringLiteral("onboardingComplete")));
}

TEST(UserDefaults, AbsentOrMistypedValuesReadAsFalseAndZero)
{
    const QString path = test::home() + QStringLiteral("/typed.conf");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[General]\nflag=yes\nnumber=12abc\nbig=9223372036854775807\nnegative=-5\nyes=true\n");
    file.close();

    UserDefaults defaults(path);
    EXPECT_FALSE(defaults.boolForKey(QStringLiteral("missing")));
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("missing")), 0);
    EXPECT_FALSE(defaults.boolForKey(QStringLiteral("flag")));
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("number")), 0);
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("big")), std::numeric_limits<qint64>::max());
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("negative")), -5);
    EXPECT_TRUE(defaults.boolForKey(QStringLiteral("yes")));

    defaults.setInteger(QStringLiteral("updateCheckerDismissedBuild"), 121);
    defaults.setBool(QStringLiteral("flag"), false);
    UserDefaults reread(path);
    EXPECT_EQ(reread.integerForKey(QStringLiteral("updateCheckerDismissedBuild")), 121);
    EXPECT_FALSE(reread.boolForKey(QStringLiteral("flag")));
    EXPECT_EQ(reread.integerForKey(QStringLiteral("negative")), -5) << "other keys survive a write";
}

TEST(NotificationCenter, ObserversRunOnTheMainThreadAndDieWithTheirContext)
{
    NotificationCenter center;
    int plain = 0;
    QThread *seenOn = nullptr;
    center.addObserver(QStringLiteral("Ping"), nullptr, [&] {
        ++plain;
        seenOn = QThread::currentThread();
    });
    auto context = std::make_unique<QObject>();
    int withContext = 0;
    center.addObserver(QStringLiteral("Ping"), context.get(), [&] { ++withContext; });
    center.addObserver(QStringLiteral("Other"), nullptr, [] { FAIL() << "wrong name delivered"; });

    QThread *poster = QThread::create([&] { center.post(QStringLiteral("Ping")); });
    poster->start();
    poster->wait();
    delete poster;
    EXPECT_EQ(plain, 0) << "a post from another thread is delivered later, on the main thread";
    QTRY_COMPARE(plain, 1);
    EXPECT_EQ(seenOn, QThread::currentThread());
    EXPECT_EQ(withContext, 1);

    context.reset();
    center.post(QStringLiteral("Ping"));
    EXPECT_EQ(plain, 2);
    EXPECT_EQ(withContext, 1);
    EXPECT_EQ(center.observerCount(QStringLiteral("Ping")), 1);
}
