// SPDX-License-Identifier: GPL-3.0-or-later
// larimo: the control panel of the Larimo voice changer.
//
//   larimo                       the panel
//   larimo --screenshot FILE     starts as usual, saves the main window to FILE (PNG) once it
//                                has settled, and ends; for demonstrations and documentation
#include "LarimoDlg.h"
#include "init.h"

#include "error.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include <cstdio>

namespace {

constexpr int kSettleMs = 700;

// Nobody is there to answer a box while the panel takes its own picture: messages go to
// standard error and get the cautious answer.
class PrintingSink final : public larimo::MessageBoxSink {
public:
    int ShowMessageBox(void* /*owner*/, const std::string& text, const std::string& caption,
                       unsigned style) override
    {
        std::fprintf(stderr, "larimo: [%s] %s\n", caption.c_str(), text.c_str());
        return (style & larimo::MB_TYPEMASK) == larimo::MB_OK ? larimo::IDOK : larimo::IDCANCEL;
    }
};

} // namespace

int main(int argc, char** argv)
{
    QApplication::setApplicationName(QStringLiteral("Larimo"));
    QApplication::setDesktopFileName(QStringLiteral("larimo"));
    QApplication application(argc, argv);
    // The panel hides into the tray; only its Exit ends the program.
    QApplication::setQuitOnLastWindowClosed(false);

    QCommandLineParser options;
    options.setApplicationDescription(QStringLiteral("Larimo control panel"));
    options.addHelpOption();
    const QCommandLineOption screenshot(QStringLiteral("screenshot"),
                                        QStringLiteral("Save the main window to <file> and end."),
                                        QStringLiteral("file"));
    options.addOption(screenshot);
    options.process(application);

    larimo::CMoApp::Hooks hooks;
    PrintingSink printing;
    if (options.isSet(screenshot)) {
        hooks.messageSink = &printing;
        const QString file = options.value(screenshot);
        hooks.mainWindowShown = [file](larimo::CLarimoDlg& dialog) {
            QTimer::singleShot(kSettleMs, &dialog, [&dialog, file] {
                if (dialog.grab().save(file, "PNG"))
                    std::printf("larimo: main window saved to %s\n", file.toLocal8Bit().constData());
                else
                    std::fprintf(stderr, "larimo: cannot write %s\n", file.toLocal8Bit().constData());
                std::fflush(stdout);
                dialog.OnExit();
            });
        };
    }
    larimo::CMoApp app(std::move(hooks));
    const larimo::CMoApp::Outcome outcome = app.InitInstance();
    return outcome == larimo::CMoApp::Outcome::kClosed ? 0 : 1;
}
