// SPDX-License-Identifier: GPL-3.0-or-later
// A list of text rows in skin colours, with one "current" row (highlighted, set by code or by
// the pointer) and a selection mark per row. Window thread.
#pragma once

#include <string>
#include <vector>

#include <QColor>
#include <QFont>
#include <QWidget>

#include "SkinParser.h"

namespace larimo {

class CFFListBox : public QWidget {
    Q_OBJECT

public:
    /// Space around a row's text, in pixels.
    static constexpr int kRowPaddingX = 6;
    static constexpr int kRowPaddingY = 3;

    CFFListBox(QWidget* parent, int ctrlId);

    bool parseSkin(CSkinParser& parser, const std::string& section, int id);
    bool ApplySkin();

    /// Inserts `text` before `row`; -1 or a row past the end appends. Returns the new row.
    int InsertItem(int row, const QString& text);
    void DeleteItem(int row);
    void ResetContent();
    int Count() const { return static_cast<int>(m_items.size()); }
    QString ItemText(int row) const;

    /// Makes `row` the current row (-1: none), repainting the old and the new one.
    void SetCurrent(int row);
    int Current() const { return m_current; }
    void SetSel(int row, bool marked);
    bool GetSel(int row) const;

    /// The row under `point` (client coordinates), or -1.
    int RowAt(const QPoint& point) const;
    QRect RowRect(int row) const;
    int RowHeight() const;
    int CtrlId() const { return m_ctrlId; }

    struct RowColors {
        QColor text;
        QColor background;
    };
    /// The colours row `row` is drawn in now.
    RowColors ColorsOf(int row) const;

signals:
    /// The user changed a row's mark with the mouse.
    void SelChange(int ctrlId);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

    int m_ctrlId;
    int m_current = -1;
    int m_topRow = 0;

private:
    struct Item {
        QString text;
        bool marked = false;
    };
    std::vector<Item> m_items;
    QPoint m_position;
    QSize m_size;
    QColor m_text{0, 0, 0};
    QColor m_background{255, 255, 255};
    QColor m_selText{255, 255, 255};
    QColor m_selBackground{10, 36, 106};
    QColor m_currText{255, 255, 255};
    QColor m_currBackground{0, 0, 0};
    QFont m_font;
};

} // namespace larimo
