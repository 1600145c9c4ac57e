#include "app/LinuxPlatform.h"

#include <QApplication>
#include <QDesktopServices>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <chrono>

namespace vistrel {

double SteadyClock::now() const
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

int MessageBoxAlertPresenter::runModal(const AlertSpec &alert)
{
    QMessageBox box;
    switch (alert.style) {
    case AlertStyle::Informational: box.setIcon(QMessageBox::Information); break;
    case AlertStyle::Warning: box.setIcon(QMessageBox::Warning); break;
    case AlertStyle::Critical: box.setIcon(QMessageBox::Critical); break;
    }
    box.setWindowTitle(alert.title);
    box.setText(alert.title);
    box.setInformativeText(alert.text);
    // Alert texts are plain sentences, some carrying words from outside (a feed's
    // release notes and version, an error description): never read as markup or links.
    for (QLabel *label : box.findChildren<QLabel *>())
        label->setTextFormat(Qt::PlainText);
    QList<QAbstractButton *> buttons;
    for (const QString &title : alert.buttons) {
        // Roles only order the buttons; the first button is the affirmative default.
        QPushButton *button =
            box.addButton(title, buttons.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole);
        if (buttons.isEmpty())
            box.setDefaultButton(button);
        buttons.append(button);
    }
    box.exec();
    return static_cast<int>(buttons.indexOf(box.clickedButton()));
}

void QtFileDialogs::chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done)
{
    auto *dialog = new QFileDialog(parent);
    dialog->setFileMode(QFileDialog::ExistingFile);
    dialog->setNameFilter(QStringLiteral("*.mov *.mp4 *.avi *.mkv"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(dialog, &QFileDialog::finished, dialog, [dialog, done](int result) {
        const QStringList files = dialog->selectedFiles();
        if (result == QDialog::Accepted && !files.isEmpty())
            done(files.first());
        else
            done(std::nullopt);
    });
    dialog->open();
}

bool ProcessLauncher::launchDetached(const QString &program, const QStringList &arguments, QString *error)
{
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    if (process.startDetached())
        return true;
    if (error)
        *error = process.errorString();
    return false;
}

void DesktopUrlOpener::openUrl(const QUrl &url)
{
    QDesktopServices::openUrl(url);
}

void QtApplication::terminate()
{
    // quit() ends the event loop; aboutToQuit runs the delegate's will-terminate handler.
    QCoreApplication::quit();
}

void QtApplication::activateIgnoringOtherApps()
{
    if (QWidget *active = QApplication::activeWindow())
        active->activateWindow();
}

} // namespace vistrel
