#include "ui/MainWindowController.h"

#include "ui/ViewController.h"

#include <QApplication>
#include <QFile>
#include <QMainWindow>
#include <QUiLoader>

namespace vistrel {
namespace {

constexpr const char *kControllerProperty = "vistrelWindowController";

// Creates our own classes by name while the interface file is read.
//
// The interface uses Qt's own widgets only, but a loader loads every designer plugin
// installed as it is made (QQuickWidget's brings in Qt Quick and QML: several MB
// resident for nothing). So it is made while Qt knows no plugin folder: the caller
// passes withoutLibraryPaths(), evaluated before the loader exists, and the
// constructor puts the folders back.
class InterfaceLoader : public QUiLoader
{
public:
    InterfaceLoader(const Services &services, const QStringList &libraryPaths) : m_services(services)
    {
        QCoreApplication::setLibraryPaths(libraryPaths);
    }

    static QStringList withoutLibraryPaths()
    {
        QStringList paths = QCoreApplication::libraryPaths();
        QCoreApplication::setLibraryPaths({});
        return paths;
    }

    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override
    {
        if (className == QLatin1String("ViewController")) {
            auto *controller = new ViewController(m_services, parent);
            controller->setObjectName(name);
            return controller;
        }
        return QUiLoader::createWidget(className, parent, name);
    }

private:
    const Services &m_services;
};

} // namespace

MainWindowController::MainWindowController(QWidget *window, ViewController *content, QObject *parent)
    : QObject(parent), m_window(window), m_content(content)
{
    window->setProperty(kControllerProperty, QVariant::fromValue(static_cast<QObject *>(this)));
}

MainWindowController::~MainWindowController() = default;

ViewController *MainWindowController::contentViewController() const
{
    return m_content;
}

MainWindowController *MainWindowController::of(const QWidget *window)
{
    if (!window)
        return nullptr;
    return qobject_cast<MainWindowController *>(window->property(kControllerProperty).value<QObject *>());
}

QWidget *MainWindowController::firstWindowWithController()
{
    for (QWidget *widget : QApplication::topLevelWidgets())
        if (of(widget))
            return widget;
    return nullptr;
}

MainWindowController *instantiateMainInterface(const Services &services, const QString &uiPath)
{
    QFile file(uiPath);
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    InterfaceLoader loader(services, InterfaceLoader::withoutLibraryPaths());
    QWidget *root = loader.load(&file);
    if (!root)
        return nullptr;
    auto *window = qobject_cast<QMainWindow *>(root);
    auto *content = window ? qobject_cast<ViewController *>(window->centralWidget()) : nullptr;
    if (!content) {
        delete root;
        return nullptr;
    }
    auto *controller = new MainWindowController(window, content, window);
    content->bindOutlets();
    content->viewDidLoad();
    return controller;
}

} // namespace vistrel
