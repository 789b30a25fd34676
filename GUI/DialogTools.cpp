// SPDX-License-Identifier: GPL-3.0-or-later
#include "DialogTools.h"

#include "error.h"
#include "texts.h"

#include <QFileDialog>
#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>
#include <QStringList>

namespace larimo {

namespace {

OpenFileChooser& Chooser()
{
    static OpenFileChooser chooser;
    return chooser;
}

void* Owner(QWidget* widget)
{
    return static_cast<void*>(widget);
}

} // namespace

void SetCtrlId(QWidget* widget, int id)
{
    widget->setProperty(kCtrlIdProperty, id);
    widget->setObjectName(QStringLiteral("ctrl%1").arg(id));
}

QString UiText(unsigned id)
{
    return QString::fromStdString(GetText(id));
}

QHBoxLayout* ListWithButtons(QWidget* list, std::initializer_list<QWidget*> buttons)
{
    auto* column = new QVBoxLayout;
    for (QWidget* button : buttons)
        column->addWidget(button);
    column->addStretch(1);
    auto* row = new QHBoxLayout;
    row->addWidget(list, 1);
    row->addLayout(column);
    return row;
}

QPushButton* MakeButton(QWidget* parent, unsigned textId, int ctrlId)
{
    auto* button = new QPushButton(UiText(textId), parent);
    SetCtrlId(button, ctrlId);
    return button;
}

void ErrorBox(QWidget* owner, const std::string& text)
{
    ShowMessage(Owner(owner), MB_OK | MB_ICONERROR, "%s", text.c_str());
}

void WarningBox(QWidget* owner, const std::string& text)
{
    ShowMessage(Owner(owner), MB_OK | MB_ICONWARNING, "%s", text.c_str());
}

bool AskQuestion(QWidget* owner, const std::string& text)
{
    return ShowMessage(Owner(owner), MB_YESNO | MB_ICONQUESTION, "%s", text.c_str()) == IDYES;
}

bool AskWarningQuestion(QWidget* owner, const std::string& text)
{
    return ShowMessage(Owner(owner), MB_YESNO | MB_ICONWARNING, "%s", text.c_str()) == IDYES;
}

QString FileDialogFilter(const std::string& filter)
{
    const QStringList parts = QString::fromStdString(filter).split(QLatin1Char('|'));
    QStringList filters;
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        const QString name = parts[i].trimmed();
        const QString patterns = parts[i + 1].trimmed();
        if (name.isEmpty() || patterns.isEmpty())
            break;
        // The name usually repeats its patterns already; Qt needs them in brackets once.
        const QString spaced = QString(patterns).replace(QLatin1Char(';'), QLatin1Char(' '));
        filters << (name.contains(QLatin1Char('(')) ? name : name + QStringLiteral(" (") + spaced + QLatin1Char(')'));
    }
    return filters.join(QStringLiteral(";;"));
}

QString ChooseOpenFile(QWidget* parent, const QString& filter)
{
    if (Chooser())
        return Chooser()(parent, filter);
    return QFileDialog::getOpenFileName(parent, QString(), QString(), filter);
}

void SetOpenFileChooser(OpenFileChooser chooser)
{
    Chooser() = std::move(chooser);
}

} // namespace larimo
