#pragma once
#include "core/Services.h"

#include <QObject>
#include <QPointer>
#include <QWidget>

namespace vistrel {

class ViewController;

// Owns the main window loaded from the interface file; its content is the
// ViewController. The window carries a back-pointer so that walking the
// application's windows finds its controller.
class MainWindowController : public QObject
{
    Q_OBJECT
public:
    MainWindowController(QWidget *window, ViewController *content, QObject *parent = nullptr);
    ~MainWindowController() override;

    QWidget *window() const { return m_window; }
    ViewController *contentViewController() const;

    // The controller of a top-level window, if it has one.
    static MainWindowController *of(const QWidget *window);
    // The first of the application's top-level windows that has a controller.
    static QWidget *firstWindowWithController();

private:
    QPointer<QWidget> m_window;
    QPointer<ViewController> m_content;
};

// The interface file ("Main.ui"): instantiates its initial window controller, the
// main window with a ViewController as content. Answers nothing when the file is
// missing, unreadable, or holds no main window with a ViewController.
MainWindowController *instantiateMainInterface(const Services &services, const QString &uiPath);

} // namespace vistrel
