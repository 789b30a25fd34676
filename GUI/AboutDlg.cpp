// SPDX-License-Identifier: GPL-3.0-or-later
#include "AboutDlg.h"

#include "VersionInfo.h"
#include "texts.h"
#include "wintools.h"

#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QLabel>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>

namespace larimo {

CAboutDlg::CAboutDlg(const std::string& homePage, QWidget* parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("AboutDlg"));
    setWindowTitle(QString::fromStdString(GetText(113)));
    auto* layout = new QVBoxLayout(this);

    auto* title = new QLabel(QString::fromStdString(GetText(113)), this);
    QFont big = title->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    title->setFont(big);
    layout->addWidget(title);

    auto* version = new QLabel(QString::fromStdString(VersionText(ProgramFolder() + "larimo")), this);
    version->setObjectName(QStringLiteral("ctrl1149"));
    version->setProperty("ctrlId", 1149);
    layout->addWidget(version);

    auto* built = new QLabel(QString::fromStdString(BuildTimeText()), this);
    built->setObjectName(QStringLiteral("ctrl1150"));
    built->setProperty("ctrlId", 1150);
    layout->addWidget(built);

    auto* link = new QLabel(this);
    link->setObjectName(QStringLiteral("ctrl1154"));
    link->setProperty("ctrlId", 1154);
    const QString address = QString::fromStdString(homePage);
    link->setText(address);
    link->setStyleSheet(QStringLiteral("color: #0000ff; background: transparent;"));
    link->setCursor(Qt::PointingHandCursor);
    link->setTextInteractionFlags(Qt::LinksAccessibleByMouse);
    if (!address.isEmpty()) {
        link->setText(QStringLiteral("<a href=\"%1\" style=\"color:#0000ff\">%1</a>").arg(address.toHtmlEscaped()));
        connect(link, &QLabel::linkActivated, this, [](const QString& url) { QDesktopServices::openUrl(QUrl(url)); });
    }
    layout->addWidget(link);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(buttons);
}

std::string CAboutDlg::VersionText(const std::string& programPath)
{
    VersionRecord record;
    if (ReadVersionInfo(programPath, kVersionLanguage, kVersionCodePage, record) != 0)
        return {};
    std::string text = record.m_fileVersionText;
    std::replace(text.begin(), text.end(), ',', '.');
    return text;
}

std::string CAboutDlg::BuildTimeText()
{
    return std::string(__DATE__) + " " + __TIME__;
}

} // namespace larimo
