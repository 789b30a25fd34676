// SPDX-License-Identifier: GPL-3.0-or-later
// The fun sound list: a skinned list whose row under the pointer becomes the current row and
// carries a small configure button at its right end. A click on a row asks to play or stop
// that fun sound; the configure button asks to choose another sound for the row.
//
// Window thread.
#pragma once

#include <string>

#include "FFButton.h"
#include "FFListBox.h"

namespace larimo {

class CMoListBox : public CFFListBox {
    Q_OBJECT

public:
    static constexpr int kConfigureButtonId = 1114;

    CMoListBox(QWidget* parent, int ctrlId);

    /// Reads "max_items" from `section`, the configure button from "[EmoticConfig]" (which
    /// may be missing) and the list's own keys.
    bool parseSkin(CSkinParser& parser, const std::string& section, int id);

    /// The skin's limit of rows, -1 for none.
    int MaxItems() const { return m_maxItems; }
    CFFButton* ConfigureButton() const { return m_configure; }

signals:
    /// The user clicked row `row`.
    void RowClicked(int row);
    /// The user clicked the configure button of row `row`; (x, y) is the button's top-left
    /// corner on the screen, where a menu for the row belongs.
    void ConfigureClicked(int row, int x, int y);

protected:
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    void ShowConfigureButton();
    void HideConfigureButton();
    void OnConfigure();

    int m_maxItems = -1;
    CFFButton* m_configure;
};

} // namespace larimo
