// SPDX-License-Identifier: GPL-3.0-or-later
#include "QtMessageBoxSink.h"

#include "mlog.h"
#include "wintools.h"

#include <QApplication>
#include <QDesktopServices>
#include <QFileInfo>
#include <QMessageBox>
#include <QThread>
#include <QUrl>
#include <QWidget>

namespace larimo {

namespace {

QMessageBox::Icon IconOf(unsigned style)
{
    switch (style & MB_ICONMASK) {
    case MB_ICONERROR:
        return QMessageBox::Critical;
    case MB_ICONQUESTION:
        return QMessageBox::Question;
    case MB_ICONWARNING:
        return QMessageBox::Warning;
    case MB_ICONINFORMATION:
        return QMessageBox::Information;
    default:
        return QMessageBox::NoIcon;
    }
}

struct ButtonSet {
    QMessageBox::StandardButtons buttons;
    QMessageBox::StandardButton escape;
};

ButtonSet ButtonsOf(unsigned style)
{
    switch (style & MB_TYPEMASK) {
    case MB_OKCANCEL:
        return {QMessageBox::Ok | QMessageBox::Cancel, QMessageBox::Cancel};
    case MB_ABORTRETRYIGNORE:
        return {QMessageBox::Abort | QMessageBox::Retry | QMessageBox::Ignore, QMessageBox::Abort};
    case MB_YESNOCANCEL:
        return {QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, QMessageBox::Cancel};
    case MB_YESNO:
        return {QMessageBox::Yes | QMessageBox::No, QMessageBox::No};
    case MB_RETRYCANCEL:
        return {QMessageBox::Retry | QMessageBox::Cancel, QMessageBox::Cancel};
    default:
        return {QMessageBox::Ok, QMessageBox::Ok};
    }
}

int ResultOf(int button)
{
    switch (button) {
    case QMessageBox::Ok:
        return IDOK;
    case QMessageBox::Yes:
        return IDYES;
    case QMessageBox::No:
        return IDNO;
    case QMessageBox::Abort:
        return IDABORT;
    case QMessageBox::Retry:
        return 4;
    case QMessageBox::Ignore:
        return 5;
    default:
        return IDCANCEL;
    }
}

} // namespace

int QtMessageBoxSink::ShowOnWindowThread(void* owner, const std::string& text, const std::string& caption,
                                         unsigned style)
{
    const ButtonSet set = ButtonsOf(style);
    QMessageBox box(IconOf(style), QString::fromStdString(caption), QString::fromStdString(text), set.buttons,
                    static_cast<QWidget*>(owner));
    box.setObjectName(QStringLiteral("LarimoMessageBox"));
    box.setEscapeButton(set.escape);
    if ((style & MB_SETFOREGROUND) != 0)
        box.setWindowFlag(Qt::WindowStaysOnTopHint);
    return ResultOf(box.exec());
}

int QtMessageBoxSink::ShowMessageBox(void* owner, const std::string& text, const std::string& caption,
                                     unsigned style)
{
    if (qApp == nullptr) {
        LogError("%s: %s", caption.c_str(), text.c_str());
        return IDCANCEL;
    }
    if (QThread::currentThread() == qApp->thread())
        return ShowOnWindowThread(owner, text, caption, style);
    int result = IDCANCEL;
    QMetaObject::invokeMethod(
        qApp, [&] { result = ShowOnWindowThread(owner, text, caption, style); }, Qt::BlockingQueuedConnection);
    return result;
}

void DesktopHelpViewer::DisplayTopic(void* /*owner*/, const std::string& target)
{
    const HelpLocation location = HelpTargetToLocation(target, ProgramFolder());
    if (!QFileInfo::exists(QString::fromStdString(location.file))) {
        LogError("Help: the page %s does not exist", location.file.c_str());
        ShowMessageBox(nullptr, "The help page " + location.file + " is missing.", MessageCaption(),
                       MB_OK | MB_ICONWARNING);
        return;
    }
    QUrl url = QUrl::fromLocalFile(QString::fromStdString(location.file));
    if (!location.fragment.empty())
        url.setFragment(QString::fromStdString(location.fragment));
    LogInfo("Help: opening %s", url.toString().toStdString().c_str());
    if (!QDesktopServices::openUrl(url))
        LogError("Help: the desktop could not open %s", url.toString().toStdString().c_str());
}

} // namespace larimo
