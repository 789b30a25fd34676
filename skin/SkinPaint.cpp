// SPDX-License-Identifier: GPL-3.0-or-later
#include "SkinPaint.h"

#include <cstdlib>

#include <QFontMetrics>
#include <QPainter>
#include <QTextLayout>

namespace larimo {

QFont ToQFont(const SkinFont& font, const QFont& base)
{
    QFont made(base);
    made.setFamily(QString::fromUtf8(font.face.data(), static_cast<qsizetype>(font.face.size())));
    made.setWeight(font.weight >= 700 ? QFont::Bold : QFont::Normal);
    made.setItalic(font.italic);
    made.setUnderline(font.underline);
    if (font.height < 0) {
        made.setPixelSize(std::abs(font.height));
    } else if (font.height > 0) {
        // A positive height names the whole character cell; shrink the em size until the
        // cell fits.
        made.setPixelSize(font.height);
        const int cell = QFontMetrics(made).height();
        if (cell > font.height)
            made.setPixelSize(std::max(1, font.height * font.height / cell));
    }
    return made;
}

void DrawSkinText(QPainter& painter, const QRect& rect, const QString& text, unsigned flags)
{
    if (text.isEmpty() || rect.width() <= 0 || rect.height() <= 0)
        return;
    const bool ellipsis = (flags & (kTextEndEllipsis | kTextPathEllipsis | kTextWordEllipsis)) != 0;
    const Qt::Alignment horizontal = (flags & kTextRight) != 0 ? Qt::AlignRight : Qt::AlignLeft;
    const QFontMetrics metrics(painter.font());

    painter.save();
    painter.setClipRect(rect, Qt::IntersectClip);
    if ((flags & kTextWordBreak) == 0 || (flags & kTextSingleLine) != 0) {
        QString shown = text;
        if (ellipsis) {
            const Qt::TextElideMode mode =
                (flags & kTextPathEllipsis) != 0 && (flags & kTextEndEllipsis) == 0 ? Qt::ElideMiddle : Qt::ElideRight;
            shown = metrics.elidedText(text, mode, rect.width());
        }
        painter.drawText(rect, static_cast<int>(horizontal | Qt::AlignTop | Qt::TextSingleLine), shown);
        painter.restore();
        return;
    }

    QTextLayout layout(text, painter.font());
    QTextOption option;
    option.setWrapMode(QTextOption::WordWrap);
    option.setAlignment(horizontal);
    layout.setTextOption(option);
    layout.beginLayout();
    qreal y = 0;
    for (;;) {
        QTextLine line = layout.createLine();
        if (!line.isValid())
            break;
        line.setLineWidth(rect.width());
        line.setPosition(QPointF(0, y));
        y += line.height();
    }
    layout.endLayout();

    for (int i = 0; i < layout.lineCount(); ++i) {
        const QTextLine line = layout.lineAt(i);
        const bool lastVisible = line.y() + 2 * line.height() > rect.height();
        if (ellipsis && lastVisible && i + 1 < layout.lineCount()) {
            const QString rest = metrics.elidedText(text.mid(line.textStart()), Qt::ElideRight, rect.width());
            const QRect lineRect(rect.left(), rect.top() + static_cast<int>(line.y()), rect.width(),
                                 static_cast<int>(line.height() + 0.5));
            painter.drawText(lineRect, static_cast<int>(horizontal | Qt::AlignTop | Qt::TextSingleLine), rest);
            break;
        }
        line.draw(&painter, rect.topLeft());
        if (line.y() >= rect.height())
            break;
    }
    painter.restore();
}

} // namespace larimo
