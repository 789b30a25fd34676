// SPDX-License-Identifier: GPL-3.0-or-later
#include "OptionsSheet.h"

#include "DialogTools.h"
#include "PgBackSounds.h"
#include "PgEffects.h"
#include "PgEmotics.h"
#include "PgShortcuts.h"
#include "PgSoundCard.h"
#include "mlog.h"
#include "moipc_cli.h"
#include "teststream.h"
#include "texts.h"

#include <QCloseEvent>
#include <QKeyEvent>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace larimo {

namespace {

// Texts of the sheet's buttons.
constexpr unsigned kOkText = 306;
constexpr unsigned kCancelText = 187;
constexpr unsigned kApplyText = 307;
constexpr unsigned kHelpText = 308;

} // namespace

CMyPropertySheet::CMyPropertySheet(const QString& caption, QWidget* parent, int firstPage)
    : QDialog(parent)
    , m_firstPage(firstPage)
{
    setWindowTitle(caption);
    setObjectName(QStringLiteral("propertySheet"));
    m_tabs = new QTabWidget(this);
    m_tabs->setObjectName(QStringLiteral("pages"));
    m_buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel | QDialogButtonBox::Apply |
                                         QDialogButtonBox::Help,
                                     this);
    const std::pair<QDialogButtonBox::StandardButton, unsigned> texts[] = {
        {QDialogButtonBox::Ok, kOkText},
        {QDialogButtonBox::Cancel, kCancelText},
        {QDialogButtonBox::Apply, kApplyText},
        {QDialogButtonBox::Help, kHelpText},
    };
    for (const auto& [which, text] : texts)
        m_buttons->button(which)->setText(UiText(text));
    m_buttons->button(QDialogButtonBox::Apply)->setEnabled(false);

    // Every tab title stays in view; pages may ask for more room than this.
    m_tabs->setUsesScrollButtons(false);
    m_tabs->setMinimumSize(580, 500);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_tabs, 1);
    layout->addWidget(m_buttons);

    connect(m_tabs, &QTabWidget::currentChanged, this, &CMyPropertySheet::OnTabChanged);
    connect(m_buttons->button(QDialogButtonBox::Ok), &QPushButton::clicked, this, &CMyPropertySheet::PressOk);
    connect(m_buttons->button(QDialogButtonBox::Cancel), &QPushButton::clicked, this, &CMyPropertySheet::PressCancel);
    connect(m_buttons->button(QDialogButtonBox::Apply), &QPushButton::clicked, this, &CMyPropertySheet::PressApply);
    connect(m_buttons->button(QDialogButtonBox::Help), &QPushButton::clicked, this, &CMyPropertySheet::PressHelp);
}

void CMyPropertySheet::AddPage(CMyPropertyPage* page)
{
    const QSignalBlocker blocker(m_tabs);
    m_tabs->addTab(page, page->Title());
}

void CMyPropertySheet::RemovePage(CMyPropertyPage* page)
{
    const int index = m_tabs->indexOf(page);
    if (index < 0)
        return;
    {
        const QSignalBlocker blocker(m_tabs);
        m_tabs->removeTab(index);
    }
    page->setParent(nullptr);
    m_shown.erase(page);
    m_modifiedPages.erase(page);
    if (index == m_current)
        m_current = -1;
    else if (index < m_current)
        --m_current;
}

int CMyPropertySheet::PageCount() const
{
    return m_tabs->count();
}

CMyPropertyPage* CMyPropertySheet::Page(int index) const
{
    return qobject_cast<CMyPropertyPage*>(m_tabs->widget(index));
}

CMyPropertyPage* CMyPropertySheet::ActivePage() const
{
    return m_current >= 0 ? Page(m_current) : nullptr;
}

int CMyPropertySheet::ActiveIndex() const
{
    return m_current;
}

bool CMyPropertySheet::SetActivePage(int index)
{
    if (m_current < 0)
        ActivateFirstPage();
    m_tabs->setCurrentIndex(index);
    return m_current == index;
}

void CMyPropertySheet::SetPageModified(CMyPropertyPage* page, bool modified)
{
    if (modified)
        m_modifiedPages.insert(page);
    else
        m_modifiedPages.erase(page);
    m_buttons->button(QDialogButtonBox::Apply)->setEnabled(!m_modifiedPages.empty());
}

QPushButton* CMyPropertySheet::Button(QDialogButtonBox::StandardButton which) const
{
    return m_buttons->button(which);
}

void CMyPropertySheet::PressOk()
{
    accept();
}

void CMyPropertySheet::PressCancel()
{
    reject();
}

void CMyPropertySheet::PressApply()
{
    ApplyAll();
}

void CMyPropertySheet::PressHelp()
{
    if (CMyPropertyPage* page = ActivePage())
        page->ShowHelp();
}

int CMyPropertySheet::exec()
{
    ActivateFirstPage();
    return QDialog::exec();
}

void CMyPropertySheet::showEvent(QShowEvent* event)
{
    ActivateFirstPage();
    QDialog::showEvent(event);
}

void CMyPropertySheet::ActivateFirstPage()
{
    if (m_current >= 0 || PageCount() == 0)
        return;
    const int index = std::clamp(m_firstPage, 0, PageCount() - 1);
    {
        const QSignalBlocker blocker(m_tabs);
        m_tabs->setCurrentIndex(index);
    }
    m_current = index;
    CMyPropertyPage* page = Page(index);
    m_shown.insert(page);
    page->OnSetActive();
}

void CMyPropertySheet::OnTabChanged(int index)
{
    if (index == m_current || m_closing)
        return;
    CMyPropertyPage* leaving = ActivePage();
    if (leaving != nullptr && !leaving->OnKillActive()) {
        const QSignalBlocker blocker(m_tabs);
        m_tabs->setCurrentIndex(m_current);
        return;
    }
    m_current = index;
    if (CMyPropertyPage* page = ActivePage()) {
        m_shown.insert(page);
        page->OnSetActive();
    }
}

bool CMyPropertySheet::ApplyAll()
{
    for (int i = 0; i < PageCount(); ++i) {
        CMyPropertyPage* page = Page(i);
        if (m_shown.count(page) == 0)
            continue;
        if (!page->OnApply()) {
            SetActivePage(i);
            return false;
        }
    }
    m_modifiedPages.clear();
    m_buttons->button(QDialogButtonBox::Apply)->setEnabled(false);
    return true;
}

void CMyPropertySheet::accept()
{
    if (m_closing)
        return;
    BeforeClose();
    CMyPropertyPage* active = ActivePage();
    if (active != nullptr && !active->OnKillActive())
        return;
    if (!ApplyAll()) {
        if (CMyPropertyPage* page = ActivePage())
            page->OnSetActive();
        return;
    }
    m_closing = true;
    QDialog::accept();
}

void CMyPropertySheet::reject()
{
    if (m_closing)
        return;
    BeforeClose();
    for (int i = 0; i < PageCount(); ++i) {
        if (m_shown.count(Page(i)) != 0)
            Page(i)->OnCancel();
    }
    m_closing = true;
    QDialog::reject();
}

void CMyPropertySheet::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_F1) {
        PressHelp();
        event->accept();
        return;
    }
    QDialog::keyPressEvent(event);
}

void CMyPropertySheet::closeEvent(QCloseEvent* event)
{
    QDialog::closeEvent(event);
}

COptionsSheet::COptionsSheet(QWidget* parent, Config& real, const std::atomic<bool>* connected, int firstPage)
    : CMyPropertySheet(QString::fromStdString(GetText(136)), parent, firstPage)
    , m_real(real)
    , m_working(real)
    , m_connected(connected)
{
    setObjectName(QStringLiteral("optionsSheet"));
    // The preview stream hands its end-of-sound stop to this window's thread; a call still
    // queued when the sheet is gone is dropped with it.
    QPointer<COptionsSheet> self(this);
    m_test = std::make_unique<TestStream>(nullptr, [self](std::function<void()> call) {
        if (self)
            QMetaObject::invokeMethod(self.data(), std::move(call), Qt::QueuedConnection);
    });
    m_test->InitTestStream(m_working, nullptr);
}

COptionsSheet::~COptionsSheet()
{
    // The pages go first, in reverse order, while the stream they use still exists.
    m_test->SetOwner(nullptr);
    for (int i = PageCount() - 1; i >= 0; --i) {
        CMyPropertyPage* page = Page(i);
        RemovePage(page);
        delete page;
    }
    m_test.reset();
}

void COptionsSheet::AddPages(CMoListBox* funSounds)
{
    AddPage(new CPgEffects(*this));
    AddPage(new CPgBackSounds(*this));
    AddPage(new CPgEmotics(*this, funSounds));
    AddPage(new CPgShortcuts(*this));
    AddPage(new CPgSoundCard(*this));
}

void COptionsSheet::MonitorOff()
{
    if (const auto client = CommandClient())
        client->MonitorSet(false);
}

void COptionsSheet::MonitorRestore()
{
    if (const auto client = CommandClient())
        client->MonitorSet(m_real.m_monitorOn);
}

void COptionsSheet::BeforeClose()
{
    if (m_test->IsRunning())
        m_test->Stop();
    MonitorRestore();
}

} // namespace larimo
