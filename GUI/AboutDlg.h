// SPDX-License-Identifier: GPL-3.0-or-later
// The About box: product version from the program file, build time, web address.
#pragma once

#include <QDialog>

#include <string>

class QLabel;

namespace larimo {

/// Window thread.
class CAboutDlg : public QDialog {
    Q_OBJECT
public:
    CAboutDlg(const std::string& homePage, QWidget* parent);

    /// The program file's "FileVersion" text with every ',' made a '.'; empty when the file
    /// carries no version record.
    static std::string VersionText(const std::string& programPath);
    static std::string BuildTimeText();
};

} // namespace larimo
