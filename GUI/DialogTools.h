// SPDX-License-Identifier: GPL-3.0-or-later
// What the panel's dialogs and pages share: control ids tests find them by, texts from the
// string table, message boxes with the application title, and file dialog filters.
#pragma once

#include <QString>

#include <functional>
#include <initializer_list>
#include <string>

class QHBoxLayout;
class QPushButton;
class QWidget;

namespace larimo {

/// A QWidget's numeric control id, kept in the "ctrlId" property so tests find every control.
constexpr const char* kCtrlIdProperty = "ctrlId";

/// Gives `widget` its control id (property and object name "ctrl<id>"). Window thread.
void SetCtrlId(QWidget* widget, int id);

/// A text of the string table as a QString. Window thread.
QString UiText(unsigned id);

/// A list with its buttons in a column on its right, as the library lists of the options show
/// them; the caller adds the layout to its own.
QHBoxLayout* ListWithButtons(QWidget* list, std::initializer_list<QWidget*> buttons);

/// A push button with a text of the string table and a control id.
QPushButton* MakeButton(QWidget* parent, unsigned textId, int ctrlId);

// Message boxes over `owner` with the application title as their caption; the questions
// return true for Yes. Window thread.
void ErrorBox(QWidget* owner, const std::string& text);
void WarningBox(QWidget* owner, const std::string& text);
bool AskQuestion(QWidget* owner, const std::string& text);
bool AskWarningQuestion(QWidget* owner, const std::string& text);

/// A filter of the string table in the form "Name (*.x)|*.x|Other|*.y||" as a Qt file dialog
/// filter ("Name (*.x);;Other (*.y)").
QString FileDialogFilter(const std::string& filter);

/// Asks for a file to open: the path, or empty when the user cancelled. Tests replace it.
using OpenFileChooser = std::function<QString(QWidget* parent, const QString& filter)>;
QString ChooseOpenFile(QWidget* parent, const QString& filter);
void SetOpenFileChooser(OpenFileChooser chooser);

} // namespace larimo
