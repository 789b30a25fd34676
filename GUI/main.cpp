// SPDX-License-Identifier: GPL-3.0-or-later
// larimo: the control panel of the Larimo voice changer.
//
//   larimo                       the panel
//   larimo --screenshot FILE     starts as usual, saves the main window to FILE (PNG) once it
//                                has settled, and ends; for demonstrations and documentation
//
// With LARIMO_REPORT_SHOWN=1 in the environment the panel writes one line to standard output
// when its main window has first been painted: "larimo: main window shown <ns>", the time on
// the system's monotonic clock (CLOCK_MONOTONIC) in nanoseconds. The start-up benchmark
// waits for it.
#include "LarimoDlg.h"
#include "init.h"

#include "error.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QEvent>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

// Watches every widget's events until the main window's first paint, then reports once the
// event loop comes back, when the painted window has reached the screen.
class ShownReporter final : public QObject {
public:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (!m_reported && event->type() == QEvent::Paint && watched->inherits("larimo::CLarimoDlg")) {
            m_reported = true;
            QCoreApplication::instance()->removeEventFilter(this);
            QTimer::singleShot(0, this, [] {
                const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                    std::chrono::steady_clock::now().time_since_epoch());
                std::printf("larimo: main window shown %lld\n", static_cast<long long>(now.count()));
                std::fflush(stdout);
            });
        }
        return false;
    }

private:
    bool m_reported = false;
};

bool ReportShownWanted()
{
    const char* value = std::getenv("LARIMO_REPORT_SHOWN");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

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

    ShownReporter shownReporter;
    if (ReportShownWanted())
        application.installEventFilter(&shownReporter);

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
