// SPDX-License-Identifier: GPL-3.0-or-later
// A transparent text over the skin background: the parent's bitmap shows through, the text is
// drawn in the skin's font and colour. Window thread.
#pragma once

#include <string>

#include <QColor>
#include <QFont>
#include <QWidget>

#include "SkinParser.h"

namespace larimo {

class CFFStaticText : public QWidget {
    Q_OBJECT

public:
    // Static styles of dialog templates that change how the text is laid out.
    static constexpr unsigned kSsRight = 0x2;
    static constexpr unsigned kSsSimple = 0xB;
    static constexpr unsigned kSsLeftNoWordWrap = 0xC;
    static constexpr unsigned kSsEndEllipsis = 0x4000;
    static constexpr unsigned kSsPathEllipsis = 0x8000;

    /// A text with the control id `ctrlId` (also the "ctrlId" property), the template's
    /// `style` and `text` as its default.
    CFFStaticText(QWidget* parent, unsigned style, int ctrlId, const QString& text = {});

    bool parseSkin(CSkinParser& parser, const std::string& section, int id);
    /// Moves the text to its skin position; its size stays the template's.
    bool ApplySkin();

    void SetText(const QString& text);
    QString Text() const { return m_text; }
    int CtrlId() const { return m_ctrlId; }
    QColor FontColor() const { return m_color; }
    QFont TextFont() const { return m_font; }
    QSize SkinSize() const { return m_size; }
    /// The layout flags (SkinTextFlag) the style gives.
    unsigned TextFlags() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    int m_ctrlId;
    unsigned m_style;
    QString m_text;
    QPoint m_position;
    QSize m_size;
    QFont m_font;
    QColor m_color;
};

} // namespace larimo
